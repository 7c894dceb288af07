# Writes the version of the tree into a C++ file, if it is another one: cmake -D ROOT=... -D FILE=... -P
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND ${ROOT}/scripts/version OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE
                                                COMMAND_ERROR_IS_FATAL ANY)
file(CONFIGURE OUTPUT ${FILE} @ONLY CONTENT
     "#include \"version.h\"\n\nconst char *const tools::version = \"@version@\";\n")
