/// @file
/// Symbol visibility of the quire library: hidden by default, public classes marked QUIRE_EXPORT.
#pragma once

/// Marks a class of the library as part of the shared library's interface.
#define QUIRE_EXPORT __attribute__((visibility("default")))
