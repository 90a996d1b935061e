#pragma once

#include <cstdio>

namespace corvelle {

/// Moves the process's standard output aside and returns a private binary stream onto it, which is
/// to hold nothing but reply lines. From then on the public standard output is a copy of standard
/// error (of the null device if there is none), so a stray print of any library cannot corrupt a
/// reply. Standard input and the private stream do no line end translation.
///
/// Returns null if the output cannot be taken; the caller leaves then. Call once, before any read.
std::FILE* takeStandardOutput();

}  // namespace corvelle
