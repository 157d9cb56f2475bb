# Helpers that give every folder the same shape: one static library from the sources found in the
# folder (and its non-test subfolders listed by the caller), and one GoogleTest binary from tests/.

# zevra_module(NAME DIRS dir... LIBS lib...)
function(zevra_module name)
  cmake_parse_arguments(ARG "" "" "DIRS;LIBS" ${ARGN})
  set(sources)
  foreach(dir . ${ARG_DIRS})
    file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cpp
         ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.c ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.h)
    list(APPEND sources ${found})
  endforeach()
  list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
  list(FILTER sources INCLUDE REGEX "\\.(c|cpp)$|\\.h$")
  set(compiled ${sources})
  list(FILTER compiled INCLUDE REGEX "\\.(c|cpp)$")
  if(NOT compiled)
    # A folder whose code is still to come: an interface library keeps the link lines stable.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${CMAKE_SOURCE_DIR})
    target_link_libraries(${name} INTERFACE ${ARG_LIBS})
    return()
  endif()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS} PRIVATE zevra_warnings)
endfunction()

# zevra_tests(NAME DIR dir LIBS lib...): every tests/*.cpp of DIR goes into one binary.
# Tests run offscreen with a private settings folder so no test touches the user's configuration.
function(zevra_tests name)
  cmake_parse_arguments(ARG "" "DIR" "LIBS" ${ARGN})
  if(NOT ARG_DIR)
    set(ARG_DIR tests)
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_DIR}/*.cpp
       ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_DIR}/*.h)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock zevra_warnings)
  target_compile_definitions(${name} PRIVATE
    ZEVRA_SOURCE_DIR="${CMAKE_SOURCE_DIR}" ZEVRA_BINARY_DIR="${CMAKE_BINARY_DIR}")
  # The environment goes through the test launcher: a list given to the ENVIRONMENT property of
  # discovered tests loses all but its first entry on the way through the discovery script.
  set_property(TARGET ${name} PROPERTY CROSSCOMPILING_EMULATOR
    ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen XDG_CONFIG_HOME=${CMAKE_BINARY_DIR}/test-config
    XDG_CACHE_HOME=${CMAKE_BINARY_DIR}/test-cache HOME=${CMAKE_BINARY_DIR}/test-home)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 300)
endfunction()
