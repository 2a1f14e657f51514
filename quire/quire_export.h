// Symbol visibility of the quire library: hidden by default, public classes marked QUIRE_EXPORT.
#pragma once

#define QUIRE_EXPORT __attribute__((visibility("default")))
