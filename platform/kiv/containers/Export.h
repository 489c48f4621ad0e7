// The symbols that a shared library exports.
#pragma once

/// Marks a class, function or variable as visible outside the shared library that defines it. The
/// plug-in is compiled with all else hidden.
///
/// The runtime's headers need it on everything that the process must have only once: on a variable,
/// on a function with a static variable, on an exception class. Definitions in a source file of the
/// runtime are visible anyway.
#define KIV_EXPORT __attribute__((visibility("default")))
