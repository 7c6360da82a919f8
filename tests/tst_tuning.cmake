# Runs the real arbo-tuning beside the library.
add_dependencies(tst_tuning arbo-tuning)
