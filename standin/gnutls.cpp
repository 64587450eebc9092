// libcurl's libraries bring GnuTLS along for protocols that nobody here speaks. Starting it takes every
// run a megabyte and a millisecond, so it is left to whoever calls gnutls_global_init.

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c): the name that the library looks for
extern "C" int _gnutls_global_init_skip();

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c)
int _gnutls_global_init_skip() {
  return 1;
}
