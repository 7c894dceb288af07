# What holds for every target of ours: warnings, definitions, sanitizers.
add_library(gripperd_house INTERFACE)
target_compile_options(
  gripperd_house
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            $<$<BOOL:${GRIPPERD_WERROR}>:-Werror>)
# Without the log context every build type prints the same log lines.
target_compile_definitions(
  gripperd_house INTERFACE QT_NO_CAST_FROM_ASCII QT_NO_FOREACH QT_NO_MESSAGELOGCONTEXT
                           QT_DEPRECATED_WARNINGS)
if(GRIPPERD_SANITIZE)
  target_compile_options(gripperd_house INTERFACE -fsanitize=address,undefined
                                                  -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(gripperd_house INTERFACE -fsanitize=address,undefined)
endif()

# gripperd_add_library(NAME SOURCES... [DEPENDS targets...]): one static library for a folder.
function(gripperd_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
  add_library(${name} STATIC ${arg_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(
    ${name}
    PUBLIC ${arg_DEPENDS}
    PRIVATE gripperd_house)
endfunction()

# gripperd_add_unit_test(CLASS [ISOLATED] [SOURCES ...] [DEPENDS targets...]): tst_CLASS.cpp as one
# test program; ISOLATED in namespaces of its own, for what listens on a port.
function(gripperd_add_unit_test class)
  cmake_parse_arguments(PARSE_ARGV 1 arg "ISOLATED" "" "DEPENDS;SOURCES")
  add_executable(tst_${class} tst_${class}.cpp ${arg_SOURCES})
  target_link_libraries(tst_${class} PRIVATE gripperd_house Qt5::Test ${arg_DEPENDS})
  set(wrapper)
  if(arg_ISOLATED)
    set(wrapper ${PROJECT_SOURCE_DIR}/scripts/isolated --net)
  endif()
  add_test(NAME unit.${class} COMMAND ${wrapper} $<TARGET_FILE:tst_${class}>)
  set_tests_properties(unit.${class} PROPERTIES TIMEOUT 120)
endfunction()
