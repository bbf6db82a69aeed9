# What `cmake --install` gives: a folder that may be moved, since everything in it is found relative to itself.
include(CMakePackageConfigHelpers)

# Headers that only sources of the library include. `./dev package --check` sees to it that nothing in them is exported,
# and that no other header needs them; the manual leaves them out, too.
set(VELOX_PRIVATE_HEADERS
  async/velCallbackLink.hpp
  channels/velChannelArithmetic.hpp
  channels/velSocket.hpp
  foundation/velStringUtils_tokens.hpp
  foundation/velTraceHeap.hpp
  runtime/velModules.hpp
  runtime/velSharedLock.hpp
  runtime/velSystemLibrary.hpp)

list(TRANSFORM VELOX_PRIVATE_HEADERS REPLACE ".+" "PATTERN;\\0;EXCLUDE" OUTPUT_VARIABLE EXCLUDED_HEADERS)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/velox DESTINATION include FILES_MATCHING PATTERN *.hpp ${EXCLUDED_HEADERS})
install(TARGETS velox EXPORT VeloxTargets RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
install(FILES ${VELOX_GCC_RUNTIMES} DESTINATION bin)

install(EXPORT VeloxTargets NAMESPACE Velox:: DESTINATION lib/cmake/Velox)
configure_package_config_file(cmake/VeloxConfig.cmake.in ${PROJECT_BINARY_DIR}/VeloxConfig.cmake
                              INSTALL_DESTINATION lib/cmake/Velox)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VeloxConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VeloxConfig.cmake ${PROJECT_BINARY_DIR}/VeloxConfigVersion.cmake
        DESTINATION lib/cmake/Velox)
configure_file(cmake/velox.pc.in ${PROJECT_BINARY_DIR}/velox.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velox.pc DESTINATION lib/pkgconfig)

install(FILES LICENSE DESTINATION share/licenses/velox)
install(DIRECTORY licenses/ DESTINATION share/licenses/velox)
# In the same places as in the source tree, so that the links of README.md hold.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md LICENSE SECURITY.md DESTINATION share/doc/velox)
install(FILES docs/parts.svg DESTINATION share/doc/velox/docs)
install(FILES bench/README.md DESTINATION share/doc/velox/bench)
install(DIRECTORY examples DESTINATION share/doc/velox FILES_MATCHING PATTERN *.cpp PATTERN *.hpp PATTERN *.md)
# The manual, where `./dev docs` has made it; `./dev package` does.
install(DIRECTORY build/docs/html DESTINATION share/doc/velox OPTIONAL)
