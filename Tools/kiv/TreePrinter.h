#pragma once

#include <ostream>

#include "Tools/kiv/Document.h"

/// Prints a document as an indented tree, texts of several lines as blocks.
void printTree(std::ostream& out, const Document& document);
