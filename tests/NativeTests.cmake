# The cases of the portable modules, built for the development machine.
set(VELOX_NATIVE_TESTS
  containers/velObjArray_test.cpp
  codecs/velBinary_test.cpp
  codecs/velHash_test.cpp
  runtime/velMethod_test.cpp
  runtime/velObject_test.cpp
  runtime/velStream_test.cpp
  foundation/velSysUtils_memory_test.cpp)
add_executable(velox_native_tests native/main.cpp ${VELOX_NATIVE_TESTS})
target_link_libraries(velox_native_tests PRIVATE velox velox_options gtest)
