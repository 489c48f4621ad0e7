// Paths in the source tree.
#pragma once

#include <string>

/// The absolute path of a file of the source tree, such as "examples/leaf.jsonl".
///
/// Only the source of this function is compiled with the path of the tree. So a compiler cache can
/// share all others between trees.
std::string sourcePath(const std::string& file);
