# Starts private JACK servers and records from them. JACK tests never run at
# the same time (each would starve the others' real-time clocks on a small
# machine), and this one keeps both cores to itself while it listens.
set_tests_properties(tst_audiooutput PROPERTIES
    RESOURCE_LOCK jack
    PROCESSORS 2
    TIMEOUT 600)
