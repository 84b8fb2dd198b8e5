# Turns a file into a C++ array: cmake -DFROM=FILE -DTO=FILE -P page.cmake
file(READ "${FROM}" content HEX)
string(LENGTH "${content}" digits)
math(EXPR size "${digits} / 2")
string(REPEAT "." 64 line)
string(REGEX REPLACE "(${line})" "\\1\n" content "${content}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," content "${content}")
file(WRITE "${TO}" "#include \"page.h\"\n\n"
    "const unsigned char page_html[] = {\n${content}\n};\nconst size_t page_html_size = ${size};\n")
