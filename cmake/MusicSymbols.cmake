# The note cards' music symbols, drawn at build time from the glyphs of an
# engraving font (LilyPond's Emmentaler) into the resource folder beside the
# executables. Nothing generated is kept in the source tree.

# The Debian package puts the font under a folder named after LilyPond's
# version, so it is looked for by pattern.
file(GLOB ARBO_EMMENTALER_CANDIDATES
    "/usr/share/lilypond/*/fonts/otf/emmentaler-20.otf"
    "/usr/local/share/lilypond/*/fonts/otf/emmentaler-20.otf")
set(ARBO_EMMENTALER_FONT "" CACHE FILEPATH
    "Emmentaler engraving font (emmentaler-20.otf) for the note cards' symbols")
if(NOT ARBO_EMMENTALER_FONT OR NOT EXISTS "${ARBO_EMMENTALER_FONT}")
    if(NOT ARBO_EMMENTALER_CANDIDATES)
        message(FATAL_ERROR "The Emmentaler font (emmentaler-20.otf) is missing: "
                            "install the Debian package lilypond-fonts")
    endif()
    list(SORT ARBO_EMMENTALER_CANDIDATES)
    list(GET ARBO_EMMENTALER_CANDIDATES -1 ARBO_EMMENTALER_FONT_FOUND)
    set(ARBO_EMMENTALER_FONT "${ARBO_EMMENTALER_FONT_FOUND}" CACHE FILEPATH
        "Emmentaler engraving font (emmentaler-20.otf) for the note cards' symbols" FORCE)
endif()

# The system's Python first: that is where the Debian package installs
# fontTools, while a user's own Python (pyenv, a virtualenv) earlier in PATH
# usually lacks it.
find_program(ARBO_SYMBOLS_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(NOT ARBO_SYMBOLS_PYTHON)
    find_program(ARBO_SYMBOLS_PYTHON NAMES python3)
endif()
if(NOT ARBO_SYMBOLS_PYTHON)
    message(FATAL_ERROR "python3 is missing: install the Debian packages python3 and python3-fonttools")
endif()
execute_process(COMMAND "${ARBO_SYMBOLS_PYTHON}" -c "import fontTools"
                RESULT_VARIABLE ARBO_FONTTOOLS_MISSING OUTPUT_QUIET ERROR_QUIET)
if(ARBO_FONTTOOLS_MISSING)
    message(FATAL_ERROR "${ARBO_SYMBOLS_PYTHON} cannot import fontTools: "
                        "install the Debian package python3-fonttools")
endif()

set(ARBO_SYMBOLS_SCRIPT "${CMAKE_SOURCE_DIR}/scripts/make-music-symbols.py")
set(ARBO_SYMBOL_FILES trebleclef.svg bassclef.svg doubleflat.svg flat.svg sharp.svg
                      doublesharp.svg note.svg)
list(TRANSFORM ARBO_SYMBOL_FILES PREPEND "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/"
     OUTPUT_VARIABLE ARBO_SYMBOL_OUTPUTS)
add_custom_command(
    OUTPUT ${ARBO_SYMBOL_OUTPUTS}
    COMMAND "${ARBO_SYMBOLS_PYTHON}" "${ARBO_SYMBOLS_SCRIPT}" emmentaler
            "${ARBO_EMMENTALER_FONT}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
    DEPENDS "${ARBO_SYMBOLS_SCRIPT}" "${ARBO_EMMENTALER_FONT}"
    COMMENT "Drawing the music symbols from ${ARBO_EMMENTALER_FONT}"
    VERBATIM)
add_custom_target(music-symbols ALL DEPENDS ${ARBO_SYMBOL_OUTPUTS})
# Whatever links the library (the program, tests, benchmarks) reads them.
add_dependencies(arbo music-symbols)

# The Helmholtz-Ellis signs come from Bravura, the reference font of SMuFL
# (SIL Open Font Licence), fetched with npm at build time and checked against
# a pinned hash. The glyphs drawn are those of the table in
# src/notation/smuflglyphs.cpp; the script refuses to draw any that the font
# does not have under that name at that code point.
set(ARBO_BRAVURA_PACKAGE "@vexflow-fonts/bravura@1.0.2")
set(ARBO_BRAVURA_SHA256 "0198aadbcdb5cf78e98bb1bbcefccfe886dd77d764b98948269a81391928759f")
set(ARBO_BRAVURA_TARBALL "" CACHE FILEPATH
    "The ${ARBO_BRAVURA_PACKAGE} tarball, fetched before (`npm pack`); empty: npm fetches it")
if(NOT ARBO_BRAVURA_TARBALL)
    find_program(ARBO_NPM npm)
    if(NOT ARBO_NPM)
        message(FATAL_ERROR "npm is missing, which fetches the Bravura font for the note cards' "
                            "Helmholtz-Ellis signs: install the Debian package npm (or configure "
                            "with -DARBO_BRAVURA_TARBALL=<the tarball of `npm pack "
                            "${ARBO_BRAVURA_PACKAGE}`>)")
    endif()
endif()
set(ARBO_BRAVURA_DIR "${CMAKE_BINARY_DIR}/bravura")
set(ARBO_BRAVURA_FONT "${ARBO_BRAVURA_DIR}/package/bravura.otf")
set(ARBO_BRAVURA_METADATA "${ARBO_BRAVURA_DIR}/package/metadata.json")
# Installed with the program (cmake/Install.cmake).
set(ARBO_BRAVURA_LICENCE "${ARBO_BRAVURA_DIR}/package/LICENSE.txt")
set(ARBO_BRAVURA_FILES "${ARBO_BRAVURA_FONT}" "${ARBO_BRAVURA_METADATA}" "${ARBO_BRAVURA_LICENCE}")
add_custom_command(
    OUTPUT ${ARBO_BRAVURA_FILES}
    COMMAND "${CMAKE_COMMAND}" -DNPM=${ARBO_NPM} -DPACKAGE=${ARBO_BRAVURA_PACKAGE}
            -DSHA256=${ARBO_BRAVURA_SHA256} -DDEST=${ARBO_BRAVURA_DIR}
            -DTARBALL=${ARBO_BRAVURA_TARBALL}
            -P "${CMAKE_SOURCE_DIR}/cmake/FetchBravura.cmake"
    DEPENDS "${CMAKE_SOURCE_DIR}/cmake/FetchBravura.cmake"
    COMMENT "Fetching the Bravura font (${ARBO_BRAVURA_PACKAGE})"
    VERBATIM)

# One glyph per line of the table: {"name", 0xCODE},
set(ARBO_SMUFL_TABLE "${CMAKE_SOURCE_DIR}/src/notation/smuflglyphs.cpp")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ARBO_SMUFL_TABLE}")
file(STRINGS "${ARBO_SMUFL_TABLE}" ARBO_SMUFL_LINES REGEX "^ *\\{\"[A-Za-z0-9]+\", 0x[0-9A-F]+\\},")
set(ARBO_SMUFL_GLYPHS "")
set(ARBO_SMUFL_OUTPUTS "")
foreach(line IN LISTS ARBO_SMUFL_LINES)
    string(REGEX REPLACE "^ *\\{\"([A-Za-z0-9]+)\", 0x([0-9A-F]+)\\},.*" "\\1=\\2" glyph "${line}")
    string(REGEX REPLACE "=.*" "" name "${glyph}")
    list(APPEND ARBO_SMUFL_GLYPHS "${glyph}")
    list(APPEND ARBO_SMUFL_OUTPUTS "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/smufl/${name}.svg")
endforeach()
if(NOT ARBO_SMUFL_GLYPHS)
    message(FATAL_ERROR "No SMuFL glyphs found in ${ARBO_SMUFL_TABLE}")
endif()
add_custom_command(
    OUTPUT ${ARBO_SMUFL_OUTPUTS}
    COMMAND "${ARBO_SYMBOLS_PYTHON}" "${ARBO_SYMBOLS_SCRIPT}" smufl "${ARBO_BRAVURA_FONT}"
            "${ARBO_BRAVURA_METADATA}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/smufl"
            ${ARBO_SMUFL_GLYPHS}
    DEPENDS "${ARBO_SYMBOLS_SCRIPT}" "${ARBO_BRAVURA_FONT}" "${ARBO_BRAVURA_METADATA}"
            "${ARBO_SMUFL_TABLE}"
    COMMENT "Drawing the Helmholtz-Ellis signs from Bravura"
    VERBATIM)
add_custom_target(smufl-symbols ALL DEPENDS ${ARBO_SMUFL_OUTPUTS} "${ARBO_BRAVURA_LICENCE}")
add_dependencies(arbo smufl-symbols)
