# cmake -P: one man page. PROGRAM's --help (run through EMULATOR, '|'-separated,
# when cross-built), if given, then SOURCE, turned into roff by txt2man and
# compressed as Debian wants (gzip -9n, no name or time stamp): OUT.
get_filename_component(dir "${OUT}" DIRECTORY)
set(text "")
if(PROGRAM)
  string(REPLACE "|" ";" emulator "${EMULATOR}")
  execute_process(COMMAND ${emulator} ${PROGRAM} --help
    OUTPUT_VARIABLE text ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} --help failed (${rc}): ${err}")
  endif()
endif()
file(READ "${SOURCE}" more)
file(WRITE "${dir}/${NAME}.${SECTION}.txt" "${text}${more}")
execute_process(COMMAND "${TXT2MAN}" -t ${NAME} -s ${SECTION} -r "${RELEASE}" -v "${VOLUME}"
                        "${dir}/${NAME}.${SECTION}.txt"
  OUTPUT_FILE "${dir}/${NAME}.${SECTION}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "txt2man failed for ${NAME}(${SECTION})")
endif()
execute_process(COMMAND "${GZIP}" -9nf "${dir}/${NAME}.${SECTION}" RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT EXISTS "${OUT}")
  message(FATAL_ERROR "gzip failed for ${NAME}(${SECTION})")
endif()
