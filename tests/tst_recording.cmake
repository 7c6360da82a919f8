# Renders logs with arbo-render.
add_dependencies(tst_recording arbo-render)
