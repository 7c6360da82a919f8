# Compares the window's messages with those of the real arbo-tuning.
add_dependencies(tst_tuningwindow arbo-tuning)
