# The flood and stop tests of the wand input drive the wand simulator.
add_dependencies(tst_inputs arbo-wand)
