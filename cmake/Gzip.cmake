# Fills the version into a text (a manual page, the change log) and
# compresses it reproducibly (no name or time stamp in the gzip header), as
# Debian's policy asks.
#   cmake -DIN=page.1 -DOUT=page.1.gz -DVERSION=x.y.z -P Gzip.cmake
file(READ "${IN}" text)
string(REPLACE "@VERSION@" "${VERSION}" text "${text}")
get_filename_component(dir "${OUT}" DIRECTORY)
string(REGEX REPLACE "\\.gz$" "" plain "${OUT}")
file(WRITE "${plain}" "${text}")
execute_process(COMMAND gzip -9nf "${plain}" RESULT_VARIABLE failed)
if(failed)
    message(FATAL_ERROR "gzip could not compress ${plain}")
endif()
