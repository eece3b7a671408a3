# ornix_embed_binary(<output.cpp> <input file> <symbol>)
#
# Writes a C++ source that holds the bytes of <input file> as read-only data:
#   extern "C" const unsigned char <symbol>[];
#   extern "C" const unsigned int <symbol>Length;
# It uses no library at all, so the driver (kernel mode) and host code can
# both compile it. Re-generated whenever the input changes.
function(ornix_embed_binary output input symbol)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${input})
    file(READ ${input} hex HEX)
    string(LENGTH "${hex}" hexLength)
    math(EXPR length "${hexLength} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    # One line per 16 bytes keeps the file readable by tools.
    string(REGEX REPLACE "((0x..,){16})" "\\1\n" bytes "${bytes}")
    file(RELATIVE_PATH source ${CMAKE_SOURCE_DIR} ${input})
    file(WRITE ${output}.tmp
        "// Generated from ${source} by cmake/EmbedBinary.cmake; do not edit.\n"
        "extern \"C\" const unsigned int ${symbol}Length = ${length};\n"
        "extern \"C\" const unsigned char ${symbol}[${length}] = {\n${bytes}\n};\n")
    file(COPY_FILE ${output}.tmp ${output} ONLY_IF_DIFFERENT)
    file(REMOVE ${output}.tmp)
endfunction()
