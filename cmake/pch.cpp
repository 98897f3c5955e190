// The translation unit that owns the project's precompiled headers (vsm_pch,
// vsm_test_pch); the headers are listed in CMakeLists.txt. Nothing links it.
