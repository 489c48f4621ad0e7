// The symbols that a shared library exports.
#pragma once

/// Marks a class, function or variable as visible outside the shared library that defines it. The
/// plug-in is compiled with all else hidden.
///
/// The runtime's headers need it where the process must have one of something: on a variable, on a
/// function with a static variable, on an exception class. What is defined in a source of the
/// runtime is visible anyway.
#define KIV_EXPORT __attribute__((visibility("default")))
