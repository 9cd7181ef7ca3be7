// SPDX-License-Identifier: Apache-2.0
/// @file
/// The version of the library (semver.org). The build reads it from here, so this is its one place.
#pragma once

/// Major version: a higher one may break callers; while it is 0, a higher minor version may, too.
#define ENGINES_HTTP_VERSION_MAJOR 0
/// Minor version.
#define ENGINES_HTTP_VERSION_MINOR 1
/// Patch version.
#define ENGINES_HTTP_VERSION_PATCH 0
