# The cases of the portable modules, built for the development machine.
set(VELOX_NATIVE_TESTS
  native/main.cpp
  codecs/velZLib_test.cpp
  containers/velAVLTree_test.cpp
  containers/velCyclicBuffer_test.cpp
  containers/velObjArray_test.cpp
  foundation/velSysUtils_memory_test.cpp
  channels/velIPIterator_test.cpp
  foundation/velStringUtils_test.cpp
  codecs/velGostCryptor_test.cpp
  codecs/velIntelHex_test.cpp
  native/velGostCryptor_libgcrypt_test.cpp
  native/velIntelHex_srecord_test.cpp
  codecs/velBinary_test.cpp
  codecs/velHash_test.cpp
  runtime/velObject_test.cpp
)
add_executable(velox_native_tests ${VELOX_NATIVE_TESTS})
target_link_libraries(velox_native_tests PRIVATE velox velox_options gtest)

# Other implementations to compare with, where they are installed.
find_path(GCRYPT_INCLUDE gcrypt.h)
find_library(GCRYPT_LIBRARY gcrypt)
if(GCRYPT_INCLUDE AND GCRYPT_LIBRARY)
  target_compile_definitions(velox_native_tests PRIVATE VELOX_HAVE_LIBGCRYPT)
  target_include_directories(velox_native_tests SYSTEM PRIVATE ${GCRYPT_INCLUDE})
  target_link_libraries(velox_native_tests PRIVATE ${GCRYPT_LIBRARY})
endif()
