# Settings of every target: warnings, definitions, sanitizers, hardening.
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
# Without the log context (file, line, function), every build type prints the same log lines.
target_compile_definitions(
  gripperd_house INTERFACE QT_NO_CAST_FROM_ASCII QT_NO_FOREACH QT_NO_MESSAGELOGCONTEXT
                           QT_DEPRECATED_WARNINGS)
if(GRIPPERD_SANITIZE)
  target_compile_options(gripperd_house INTERFACE -fsanitize=address,undefined
                                                  -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(gripperd_house INTERFACE -fsanitize=address,undefined)
endif()
if(GRIPPERD_HARDEN)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  # Undefine the level first, because a package build sets its own.
  target_compile_options(gripperd_house INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3
                                                  -fstack-protector-strong)
  target_compile_definitions(gripperd_house INTERFACE _GLIBCXX_ASSERTIONS)
  target_link_options(gripperd_house INTERFACE -Wl,-z,relro -Wl,-z,now)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i[3-6]86)$")
    target_compile_options(gripperd_house INTERFACE -fcf-protection)
  endif()
endif()

# gripperd_precompile(NAME LIBRARIES targets... HEADERS headers...): precompiles headers that most files
# include. Every file still includes what it uses; CMAKE_DISABLE_PRECOMPILE_HEADERS=ON checks that.
function(gripperd_precompile name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LIBRARIES;HEADERS")
  add_library(${name} OBJECT ${PROJECT_SOURCE_DIR}/cmake/precompiled.cpp)
  set_target_properties(${name} PROPERTIES AUTOMOC OFF)
  target_link_libraries(${name} PRIVATE gripperd_house ${arg_LIBRARIES})
  target_precompile_headers(${name} PRIVATE ${arg_HEADERS})
endfunction()

set(gripperd_common_headers
    <QByteArray>
    <QCoreApplication>
    <QDebug>
    <QElapsedTimer>
    <QFile>
    <QList>
    <QMap>
    <QObject>
    <QPointer>
    <QRegularExpression>
    <QString>
    <QStringList>
    <QTimer>
    <QVector>
    <algorithm>
    <array>
    <functional>
    <memory>
    <optional>)
gripperd_precompile(gripperd_precompiled LIBRARIES Qt5::Core HEADERS ${gripperd_common_headers})
if(BUILD_TESTING)
  gripperd_precompile(
    gripperd_precompiled_test
    LIBRARIES
    Qt5::Test
    HEADERS
    ${gripperd_common_headers}
    <QSignalSpy>
    <QTemporaryDir>
    <QTest>)
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
  target_precompile_headers(${name} REUSE_FROM gripperd_precompiled)
endfunction()

# gripperd_add_program(NAME SOURCES... [DEPENDS targets...]): a program that users or tests run.
function(gripperd_add_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE gripperd_house ${arg_DEPENDS})
  target_precompile_headers(${name} REUSE_FROM gripperd_precompiled)
endfunction()

# gripperd_add_test_helper(NAME [DEPENDS targets...]): a static library of NAME.cpp, which several
# unit tests share.
function(gripperd_add_test_helper name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "DEPENDS")
  gripperd_add_library(${name} ${name}.cpp DEPENDS Qt5::Core ${arg_DEPENDS})
endfunction()

# gripperd_add_unit_test(CLASS [ISOLATED] [SOURCES ...] [DEPENDS targets...]): a test program of
# tst_CLASS.cpp. ISOLATED runs it in namespaces of its own: a test that listens on a port needs this.
function(gripperd_add_unit_test class)
  cmake_parse_arguments(PARSE_ARGV 1 arg "ISOLATED" "" "DEPENDS;SOURCES")
  add_executable(tst_${class} tst_${class}.cpp ${arg_SOURCES})
  target_link_libraries(tst_${class} PRIVATE gripperd_house Qt5::Test ${arg_DEPENDS})
  # With QT_NETWORK_LIB, QtTest includes twice as many headers, to print network types. Tests with
  # and without it could not share one precompiled header.
  target_compile_options(tst_${class} PRIVATE -UQT_NETWORK_LIB)
  target_precompile_headers(tst_${class} REUSE_FROM gripperd_precompiled_test)
  # A test includes its own moc file, so mocs_compilation.cpp is empty.
  set_source_files_properties(
    ${CMAKE_CURRENT_BINARY_DIR}/tst_${class}_autogen/mocs_compilation.cpp
    PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  set(wrapper)
  if(arg_ISOLATED)
    set(wrapper ${PROJECT_SOURCE_DIR}/scripts/isolated --net)
  endif()
  add_test(NAME unit.${class} COMMAND ${wrapper} $<TARGET_FILE:tst_${class}>)
  set_tests_properties(unit.${class} PROPERTIES TIMEOUT 120)
endfunction()
