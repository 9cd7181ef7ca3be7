// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The shared library exports what is declared with `ENGINES_HTTP_EXPORT`: each public class,
/// function and variable, and what inline code of the installed headers calls, throws or holds in a
/// public class.

#ifdef ENGINES_HTTP_SHARED
/// Makes a declaration visible outside the shared library. CMake and pkg-config define
/// `ENGINES_HTTP_SHARED` for the shared library and those who link it; without it, this is empty.
#define ENGINES_HTTP_EXPORT __attribute__((visibility("default")))
#else
#define ENGINES_HTTP_EXPORT
#endif
