// The object the tests' precompiled header is built with (tests/CMakeLists.txt).
