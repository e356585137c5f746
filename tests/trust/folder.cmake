# A value of 4 KiB is copied word by word, without a loop: debug information and warnings about that
# take a compiler minutes. LimitsTest has the same code for smaller ones, with both.
set_source_files_properties( trust/LargeValuesTest.cpp PROPERTIES
    COMPILE_OPTIONS "-g0;-Wno-all;-Wno-extra" )
