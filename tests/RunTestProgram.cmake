# Runs one test program under the emulator. It passes only when the program exits with status 0
# and GoogleTest's own summary says it passed, with no failed case: Wine ends a program whose
# stack overflowed with status 0, and a program that crashes or hangs while it unloads, after its
# summary, must fail all the same.
#   cmake -DEMULATOR=<runner> -DPROGRAM=<test.exe> -DTIMEOUT=<seconds> -P RunTestProgram.cmake
# The program is ended here when it outlives its time (AVSCAN_TEST_TIMEOUT, when set, shortens
# it): CTest's own timeout would end only this script and leave the program running.
if(DEFINED ENV{AVSCAN_TEST_TIMEOUT} AND "$ENV{AVSCAN_TEST_TIMEOUT}" MATCHES "^[0-9]+$" AND "$ENV{AVSCAN_TEST_TIMEOUT}" LESS TIMEOUT)
  set(TIMEOUT $ENV{AVSCAN_TEST_TIMEOUT})
endif()
execute_process(COMMAND ${EMULATOR} ${PROGRAM} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output
                ECHO_OUTPUT_VARIABLE ECHO_ERROR_VARIABLE TIMEOUT ${TIMEOUT})
if(NOT status STREQUAL "0")
  message(FATAL_ERROR "test program ended with status ${status}")
endif()
if(output MATCHES "\\[  FAILED  \\]" OR NOT output MATCHES "\\[  PASSED  \\] [0-9]+ tests?\\.")
  message(FATAL_ERROR "no GoogleTest summary of a passed run")
endif()
