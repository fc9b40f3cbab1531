// The C header check compiled as C++11 (see public_header.cmake).
#include "c_header_check.c"
