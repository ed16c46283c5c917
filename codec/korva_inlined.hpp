// How a lambda asks to be part of its caller. For the codecs.
#pragma once

// A lambda takes the attribute in this form only; under a name it can be read in one line.
#define KORVA_INLINED __attribute__((always_inline))
