/// @file
/// Symbol visibility of the Qt integration library (libquire_qt). Everything is hidden by default;
/// the classes that hosts use are marked QUIRE_QT_EXPORT.
#pragma once

/// Marks a class of the Qt integration library as part of its shared library's interface.
#define QUIRE_QT_EXPORT __attribute__((visibility("default")))
