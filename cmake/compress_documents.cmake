# Run by cpack on what it is about to pack: Debian wants these compressed.

file(GLOB documents ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man?/*.[158]
                    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
