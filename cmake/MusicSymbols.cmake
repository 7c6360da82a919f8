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
    COMMAND "${ARBO_SYMBOLS_PYTHON}" "${ARBO_SYMBOLS_SCRIPT}" "${ARBO_EMMENTALER_FONT}"
            "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
    DEPENDS "${ARBO_SYMBOLS_SCRIPT}" "${ARBO_EMMENTALER_FONT}"
    COMMENT "Drawing the music symbols from ${ARBO_EMMENTALER_FONT}"
    VERBATIM)
add_custom_target(music-symbols ALL DEPENDS ${ARBO_SYMBOL_OUTPUTS})
# Whatever links the library (the program, tests, benchmarks) reads them.
add_dependencies(arbo music-symbols)
