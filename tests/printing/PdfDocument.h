#pragma once

#include <string>

namespace Kestrel::Test {

// Writes a small valid PDF with the given number of pages, each with one line of text.
void writePdf(const std::string& path, int pages);

// Counts the pages of a PDF, -1 when it cannot be read.
int countPdfPages(const std::string& path);

} // namespace Kestrel::Test
