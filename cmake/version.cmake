# Reads the number of the version, MAJOR.MINOR.PATCH, from debian/changelog into `version_number`.
# scripts/version adds the commit.
set(version_changelog ${CMAKE_CURRENT_LIST_DIR}/../debian/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${version_changelog})
file(STRINGS ${version_changelog} version_entry LIMIT_COUNT 1)
string(REGEX MATCH "[0-9]+\\.[0-9]+\\.[0-9]+" version_number "${version_entry}")
