# Places the resource files beside the executables: the folder that holds the
# executable is the program's resource folder. configure_file copies only what
# changed, and the glob re-runs when files are added, so the copies stay current
# without touching unchanged files (the runtime patch copy compares times).

file(GLOB_RECURSE ARBO_RESOURCE_FILES CONFIGURE_DEPENDS
    RELATIVE "${CMAKE_SOURCE_DIR}/resources"
    "${CMAKE_SOURCE_DIR}/resources/*")
foreach(res IN LISTS ARBO_RESOURCE_FILES)
    # Qt resources compiled into the binary stay out of the folder, and so do
    # the desktop's files (menu entry, metadata), which only an install places.
    if(res MATCHES "\\.qrc$" OR res MATCHES "^desktop/")
        continue()
    endif()
    configure_file("${CMAKE_SOURCE_DIR}/resources/${res}"
                   "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${res}" COPYONLY)
endforeach()
