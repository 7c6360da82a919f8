# The flood and stop tests drive the wand simulator.
add_dependencies(tst_udplistener arbo-wand)
