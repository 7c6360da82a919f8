# Runs the real arbo-tuning beside the library.
add_dependencies(tst_heji arbo-tuning)
