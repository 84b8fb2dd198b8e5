// The page, as it was when the program was built; page.cmake makes its bytes.
#pragma once

#include <cstddef>

extern const unsigned char page_html[];
extern const size_t        page_html_size;
