#pragma once

/// Marks what libpelm exports. The library is built with every other symbol hidden, so that what a host can
/// link against is exactly what these headers declare.
#define PELM_EXPORT __attribute__((visibility("default")))
