// The program's version, for `systemd-analyze inspect-elf`, coredumpctl and `readelf --notes`. There is no
// --version: any start is an attempt.

__asm__(R"(
  .pushsection .note.package, "a", %note
  .balign 4
  .4byte 1f - 0f
  .4byte 3f - 2f
  .4byte 0xcafe1a7e
0: .asciz "FDO"
1:
2: .asciz "{\"type\":\"deb\",\"name\":\"zeloinstall\",\"version\":\")" ZELO_VERSION R"(\"}"
3: .balign 4
  .popsection
)");
