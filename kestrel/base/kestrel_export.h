/// @file
/// Symbol visibility of the host platform library. Everything is hidden by default; the classes and
/// functions that hosts and the quire library use are marked KESTREL_EXPORT.
#pragma once

/// Marks a class or function of the platform as part of the shared library's interface.
#define KESTREL_EXPORT __attribute__((visibility("default")))
