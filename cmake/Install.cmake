# What `cmake --install` (and so the Debian package) puts where, after the
# GNU layout: the instrument and its tools in bin/, the resources in
# share/merrow-tuning-arbo/ (found from bin/ by a relative path, see
# ARBO_RELATIVE_DATA_DIR), and the desktop's files where the desktop looks.

set(ARBO_DESKTOP_ID "org.merrowtuning.Arbo")
set(ARBO_HOMEPAGE_URL "https://example.org/merrow-tuning-arbo" CACHE STRING
    "The program's home page; the desktop metadata's screenshots lie under its docs/")

install(TARGETS merrow-tuning-arbo ${ARBO_TOOL_TARGETS}
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")

# The resources as the build tree has them beside the executables, without
# what is compiled in (about.*) or installed elsewhere (desktop/).
install(DIRECTORY "${CMAKE_SOURCE_DIR}/resources/"
        DESTINATION "${ARBO_DATA_INSTALL_DIR}"
        PATTERN "about.*" EXCLUDE
        PATTERN "desktop" EXCLUDE)
install(FILES ${ARBO_SYMBOL_OUTPUTS} DESTINATION "${ARBO_DATA_INSTALL_DIR}")
install(FILES ${ARBO_SMUFL_OUTPUTS} DESTINATION "${ARBO_DATA_INSTALL_DIR}/smufl")

# Menu entry, metadata and icon.
set(ARBO_DESKTOP_DIR "${CMAKE_SOURCE_DIR}/resources/desktop")
set(ARBO_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
configure_file("${ARBO_DESKTOP_DIR}/${ARBO_DESKTOP_ID}.metainfo.xml.in"
               "${ARBO_GENERATED_DIR}/${ARBO_DESKTOP_ID}.metainfo.xml" @ONLY)
install(FILES "${ARBO_DESKTOP_DIR}/${ARBO_DESKTOP_ID}.desktop"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/applications")
install(FILES "${ARBO_GENERATED_DIR}/${ARBO_DESKTOP_ID}.metainfo.xml"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo")
set(ARBO_ICON_SVG "${CMAKE_SOURCE_DIR}/resources/icons/${ARBO_DESKTOP_ID}.svg")
install(FILES "${ARBO_ICON_SVG}"
        DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps")

# Bitmap icons for desktops and menus that do not draw SVG.
find_program(ARBO_RSVG_CONVERT rsvg-convert)
if(NOT ARBO_RSVG_CONVERT)
    message(FATAL_ERROR "rsvg-convert is missing: install the Debian package librsvg2-bin")
endif()
set(ARBO_ICON_OUTPUTS "")
foreach(size 16 24 32 48 64 128 256)
    set(png "${ARBO_GENERATED_DIR}/icons/${size}x${size}/${ARBO_DESKTOP_ID}.png")
    add_custom_command(
        OUTPUT "${png}"
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${ARBO_GENERATED_DIR}/icons/${size}x${size}"
        COMMAND "${ARBO_RSVG_CONVERT}" -w ${size} -h ${size} -o "${png}" "${ARBO_ICON_SVG}"
        DEPENDS "${ARBO_ICON_SVG}"
        VERBATIM)
    list(APPEND ARBO_ICON_OUTPUTS "${png}")
    install(FILES "${png}"
            DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/${size}x${size}/apps")
endforeach()

# Manual pages with the version filled in, compressed as Debian wants them.
set(ARBO_MAN_OUTPUTS "")
foreach(page merrow-tuning-arbo arbo-wand arbo-tuning arbo-render)
    set(source "${CMAKE_SOURCE_DIR}/docs/man/${page}.1")
    set(gz "${ARBO_GENERATED_DIR}/man/${page}.1.gz")
    add_custom_command(
        OUTPUT "${gz}"
        COMMAND "${CMAKE_COMMAND}" -DIN=${source} -DOUT=${gz} -DVERSION=${PROJECT_VERSION}
                -P "${CMAKE_SOURCE_DIR}/cmake/Gzip.cmake"
        DEPENDS "${source}" "${CMAKE_SOURCE_DIR}/cmake/Gzip.cmake"
        VERBATIM)
    list(APPEND ARBO_MAN_OUTPUTS "${gz}")
    install(FILES "${gz}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endforeach()

# The licence notices of what the package ships, and its change log
# (compressed like the manual pages).
set(ARBO_DOC_DIR "${CMAKE_INSTALL_DATADIR}/doc/merrow-tuning-arbo")
install(FILES "${CMAKE_SOURCE_DIR}/docs/copyright" DESTINATION "${ARBO_DOC_DIR}")
# The Helmholtz-Ellis signs are outlines of Bravura's glyphs: the font's own
# notice and licence travel with them, as the Open Font Licence asks.
install(FILES "${ARBO_BRAVURA_LICENCE}" DESTINATION "${ARBO_DOC_DIR}" RENAME Bravura-OFL.txt)
set(ARBO_CHANGELOG_GZ "${ARBO_GENERATED_DIR}/changelog.gz")
add_custom_command(
    OUTPUT "${ARBO_CHANGELOG_GZ}"
    COMMAND "${CMAKE_COMMAND}" -DIN=${CMAKE_SOURCE_DIR}/docs/changelog -DOUT=${ARBO_CHANGELOG_GZ}
            -DVERSION=${PROJECT_VERSION} -P "${CMAKE_SOURCE_DIR}/cmake/Gzip.cmake"
    DEPENDS "${CMAKE_SOURCE_DIR}/docs/changelog" "${CMAKE_SOURCE_DIR}/cmake/Gzip.cmake"
    VERBATIM)
install(FILES "${ARBO_CHANGELOG_GZ}" DESTINATION "${ARBO_DOC_DIR}")

add_custom_target(desktop-files ALL
                  DEPENDS ${ARBO_ICON_OUTPUTS} ${ARBO_MAN_OUTPUTS} "${ARBO_CHANGELOG_GZ}")
