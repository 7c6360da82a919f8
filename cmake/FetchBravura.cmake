# Fetches the Bravura music font (SIL Open Font Licence) into the build tree
# and checks it against the pinned hash; run by the build with cmake -P.
#
#   -DNPM=npm -DPACKAGE=@vexflow-fonts/bravura@1.0.2 -DSHA256=... -DDEST=folder
#   [-DTARBALL=file]   a tarball fetched before (an offline build); no npm then
#
# The package is a copy of Steinberg's own release of Bravura 1.392 (its
# "redist" folder: bravura.otf, metadata.json and the licence), published on
# npm, which the build can reach with an ordinary client. Nothing of it is
# committed; the files land in DEST/package/.

foreach(var PACKAGE SHA256 DEST)
    if(NOT ${var})
        message(FATAL_ERROR "FetchBravura.cmake: ${var} is not set")
    endif()
endforeach()
file(MAKE_DIRECTORY "${DEST}")
set(tarball "${DEST}/bravura.tgz")

if(TARBALL)
    execute_process(COMMAND "${CMAKE_COMMAND}" -E copy "${TARBALL}" "${tarball}"
                    RESULT_VARIABLE failed)
    if(failed)
        message(FATAL_ERROR "Cannot copy ${TARBALL}")
    endif()
else()
    # Into a folder of its own (npm names the file after the package), with
    # the cache in the build tree too, so that the user's own npm cache is
    # neither read nor filled.
    set(pack "${DEST}/pack")
    file(REMOVE_RECURSE "${pack}")
    file(MAKE_DIRECTORY "${pack}")
    execute_process(
        COMMAND "${NPM}" pack "${PACKAGE}" --cache "${DEST}/npm-cache" --silent
        WORKING_DIRECTORY "${pack}"
        RESULT_VARIABLE failed
        OUTPUT_VARIABLE out ERROR_VARIABLE err)
    file(GLOB packed "${pack}/*.tgz")
    list(LENGTH packed count)
    if(failed OR NOT count EQUAL 1)
        message(FATAL_ERROR "Could not fetch ${PACKAGE} with npm (${out}${err}). Without a "
                            "network, fetch it elsewhere with `npm pack ${PACKAGE}` and "
                            "configure with -DARBO_BRAVURA_TARBALL=<that file>.")
    endif()
    file(RENAME "${packed}" "${tarball}")
    file(REMOVE_RECURSE "${pack}" "${DEST}/npm-cache")
endif()

file(SHA256 "${tarball}" actual)
if(NOT actual STREQUAL SHA256)
    file(REMOVE "${tarball}")
    message(FATAL_ERROR "${PACKAGE} has the SHA-256 ${actual}, not the pinned ${SHA256}: "
                        "the font is not the one the music symbols were checked against.")
endif()

file(REMOVE_RECURSE "${DEST}/package")
execute_process(COMMAND "${CMAKE_COMMAND}" -E tar xzf "${tarball}"
                WORKING_DIRECTORY "${DEST}" RESULT_VARIABLE failed)
foreach(file bravura.otf metadata.json LICENSE.txt)
    if(failed OR NOT EXISTS "${DEST}/package/${file}")
        message(FATAL_ERROR "${tarball} holds no package/${file}")
    endif()
endforeach()
