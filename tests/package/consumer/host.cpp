// The host in C++11.
#include "host.c"
