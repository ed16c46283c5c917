/* Nobody calls them here; each is a function of its own, so that addresses tell them apart. */
#include "tests/support/host_functions.h"

#include <stdlib.h>

#define KEL_DEFINE(method)       \
  void method(void) { abort(); } \
  void method##_free(void) { abort(); }
KEL_FOR_EACH_METHOD(KEL_DEFINE)
