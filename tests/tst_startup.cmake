# The program needs an audio device, so the test runs it on a private JACK
# server; JACK tests never run at the same time.
set_tests_properties(tst_startup PROPERTIES RESOURCE_LOCK jack)
