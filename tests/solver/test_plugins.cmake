# Small plug-ins built for the loader and front-end tests, each in a folder of its own so
# that ZORP_LIB_DIR picks one. The recording plug-in logs every call it receives.
set(_zorp_fake_vell ${CMAKE_CURRENT_SOURCE_DIR}/solver/plugins/recording_vellsolver.c)
foreach(variant recording required_only no_list_destroy no_shape linear_only)
  set(target test_plugin_vell_${variant})
  add_library(${target} MODULE ${_zorp_fake_vell})
  string(TOUPPER ${variant} _flag)
  target_compile_definitions(${target} PRIVATE ZORP_PLUGIN_EXPORTS=1 FAKE_${_flag}=1)
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/include)
  set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME "vellsolver_${ZORP_TYPE_TAG}"
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/plugins/${variant})
  add_dependencies(zorp_tests ${target})
endforeach()

set(_zorp_fake_mirk ${CMAKE_CURRENT_SOURCE_DIR}/solver/plugins/fake_mirk.c)
foreach(variant cpu_only int_without_hint int_engine missing_search)
  set(target test_plugin_mirk_${variant})
  add_library(${target} MODULE ${_zorp_fake_mirk})
  string(TOUPPER ${variant} _flag)
  target_compile_definitions(${target} PRIVATE FAKE_${_flag}=1)
  set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME "mirk_${ZORP_TYPE_TAG}"
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/plugins/${variant})
  add_dependencies(zorp_tests ${target})
endforeach()

# The tallon loader reads only the folder of the file holding the library's code, which for
# the test program is its own folder; this one lacks a required symbol.
add_library(test_plugin_tallon MODULE ${CMAKE_CURRENT_SOURCE_DIR}/solver/plugins/fake_tallon.c)
set_target_properties(test_plugin_tallon PROPERTIES PREFIX "" OUTPUT_NAME "tallon_${ZORP_TYPE_TAG}"
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_dependencies(zorp_tests test_plugin_tallon)
