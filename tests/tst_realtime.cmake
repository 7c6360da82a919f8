# The interposed allocator and mutex functions must win over the C library's
# for every call in the process: the executable exports them.
set_target_properties(tst_realtime PROPERTIES ENABLE_EXPORTS ON)
