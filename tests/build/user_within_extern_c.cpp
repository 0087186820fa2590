// The C++ user once more, by way of a header of C that brings tarvo.h along.
extern "C" {
#include <tarvo.h>
}

#include "user.cpp"
