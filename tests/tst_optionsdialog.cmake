# Starts a private JACK server for the audio device test; JACK tests never run
# at the same time.
set_tests_properties(tst_optionsdialog PROPERTIES RESOURCE_LOCK jack)
