# Runs the program on a private JACK server; JACK tests never run at the same
# time.
add_dependencies(tst_hostileinput merrow-tuning-arbo)
set_tests_properties(tst_hostileinput PROPERTIES RESOURCE_LOCK jack)
