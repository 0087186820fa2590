// A program whose strings are those of g++ before 5. It cannot read the exported text, so the
// header does not declare it: another declaration does not clash.

#define _GLIBCXX_USE_CXX11_ABI 0
#include <tarvo.h>

extern int to_string_err;

int main() {}
