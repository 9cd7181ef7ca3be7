// What the shared library exports: what is declared with `ENGINES_HTTP_EXPORT`, and nothing else of
// the library. It is said of every public class, function and variable, and of what inline code of
// the installed headers calls, throws or holds in a public class.
#pragma once

/// @file
/// Which names the shared library exports.

#ifdef ENGINES_HTTP_SHARED
/// Visible beyond the shared library. Its build and its users, by CMake and by pkg-config, define
/// `ENGINES_HTTP_SHARED`; without it, as for the static library, this is nothing.
#define ENGINES_HTTP_EXPORT __attribute__((visibility("default")))
#else
#define ENGINES_HTTP_EXPORT
#endif
