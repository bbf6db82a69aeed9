# What every target of the project is compiled with.
add_library(velox_options INTERFACE)
target_compile_options(velox_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-align
  -Wimplicit-fallthrough $<$<BOOL:${VELOX_WERROR}>:-Werror>
  # GCC 12 sees overflows and overlaps in "literal" + std::string where there are none (its bugs 105329, 105651).
  -Wno-stringop-overflow -Wno-restrict>)
target_include_directories(velox_options INTERFACE ${PROJECT_SOURCE_DIR})
if(WIN32)
  # The oldest Windows supported, said before any header of the compiler could name a newer one.
  target_compile_definitions(velox_options INTERFACE _WIN32_WINNT=0x0601)
  # The same sources give the same bytes, wherever and whenever they are built.
  target_compile_options(velox_options INTERFACE
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Release>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>)
  target_link_options(velox_options INTERFACE -Wl,--no-insert-timestamp)
endif()
if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  # SSE2 is in every processor that runs a supported Windows. The compiler itself re-aligns the stack for it, which
  # matters since the system calls back with a stack aligned to 4 bytes only.
  target_compile_options(velox_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-march=pentium4 -mtune=generic -mfpmath=sse>)
endif()

# A program of the project: linked to the library, with velox.dll and the compiler's runtime DLLs beside it.
function(velox_add_program NAME)
  add_executable(${NAME} ${ARGN})
  target_link_libraries(${NAME} PRIVATE velox velox_options)
  set_target_properties(${NAME} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
endfunction()
