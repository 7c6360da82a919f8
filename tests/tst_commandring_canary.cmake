# Runs the sanitizer build's deliberate race and passes only when the
# sanitizer reported it and failed the run with its exit code.
execute_process(COMMAND "${EXECUTABLE}" raceCanary
                RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE errors)
if(NOT result EQUAL 66 OR NOT errors MATCHES "ThreadSanitizer: data race")
    message(FATAL_ERROR "The deliberate race went unreported (exit ${result}):\n${output}\n${errors}")
endif()
message(STATUS "The deliberate race was reported and failed the run, as it must.")
