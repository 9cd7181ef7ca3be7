// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The shared library exports what is declared with `ENGINES_HTTP_EXPORT`: each public class,
/// function and variable, and the internal ones that inline code of the installed headers uses.

#ifdef ENGINES_HTTP_SHARED
/// Makes a declaration visible outside the shared library. CMake and pkg-config define
/// `ENGINES_HTTP_SHARED` for the shared library and the code that links it; without it, this is
/// empty.
#define ENGINES_HTTP_EXPORT __attribute__((visibility("default")))
#else
#define ENGINES_HTTP_EXPORT
#endif
