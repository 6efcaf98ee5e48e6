# orlinth_add_layer(NAME SOURCES ... PUBLIC ... PRIVATE ...)
#
# One static library a layer. What a layer may use is what is listed here and nothing else:
# scripts/check-layers holds the includes to the same arrows.
function(orlinth_add_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 LAYER "" "" "SOURCES;PUBLIC;PRIVATE")
  add_library(${name} STATIC ${LAYER_SOURCES})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>"
    "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  target_link_libraries(${name} PUBLIC ${LAYER_PUBLIC} PRIVATE ${LAYER_PRIVATE}
    "$<BUILD_INTERFACE:orlinth_warnings>" "$<BUILD_INTERFACE:orlinth_hardening>")
endfunction()
