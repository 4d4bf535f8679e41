# Writes the commit that is built to OUT, if that changed: lab_commit, "" outside of a checkout.
execute_process(COMMAND git -C "${SOURCE}" describe --always --dirty --abbrev=12 OUTPUT_VARIABLE commit
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE wrong)
if(NOT wrong EQUAL 0)
  set(commit "")
endif()
set(text "extern const char lab_commit[];\nconst char lab_commit[] = \"${commit}\";\n")
set(former "")
if(EXISTS "${OUT}")
  file(READ "${OUT}" former)
endif()
if(NOT former STREQUAL text)
  file(WRITE "${OUT}" "${text}")
endif()
