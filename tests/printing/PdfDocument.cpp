#include "tests/printing/PdfDocument.h"

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Kestrel::Test {

void writePdf(const std::string& path, int pages)
{
    std::ostringstream pdf;
    std::vector<long> offsets;
    auto object = [&](const std::string& body) {
        offsets.push_back(static_cast<long>(pdf.tellp()));
        pdf << offsets.size() << " 0 obj\n" << body << "\nendobj\n";
    };
    pdf << "%PDF-1.4\n";
    object("<< /Type /Catalog /Pages 2 0 R >>");
    std::string kids;
    for (int page = 0; page < pages; ++page)
        kids += std::to_string(4 + 2 * page) + " 0 R ";
    object("<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(pages) + " >>");
    object("<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>");
    for (int page = 0; page < pages; ++page) {
        const std::string text = "BT /F1 24 Tf 72 720 Td (Kestrel page " + std::to_string(page + 1) + ") Tj ET";
        object("<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /Font << /F1 3 0 R >> >> "
               "/Contents " + std::to_string(5 + 2 * page) + " 0 R >>");
        object("<< /Length " + std::to_string(text.size()) + " >>\nstream\n" + text + "\nendstream");
    }
    const long xref = static_cast<long>(pdf.tellp());
    pdf << "xref\n0 " << offsets.size() + 1 << "\n0000000000 65535 f \n";
    for (long offset : offsets) {
        char line[21];
        std::snprintf(line, sizeof line, "%010ld 00000 n \n", offset);
        pdf << line;
    }
    pdf << "trailer\n<< /Size " << offsets.size() + 1 << " /Root 1 0 R >>\nstartxref\n" << xref << "\n%%EOF\n";

    std::ofstream out(path, std::ios::binary);
    out << pdf.str();
    if (!out)
        throw std::runtime_error("cannot write " + path);
}

int countPdfPages(const std::string& path)
{
    // What reaches the printer has been rewritten by the filter chain
    // (object streams, compression), so a real PDF reader counts.
    const std::string command = "qpdf --show-npages '" + path + "' 2>/dev/null";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    int pages = -1;
    if (!pipe || std::fscanf(pipe.get(), "%d", &pages) != 1)
        return -1;
    return pages;
}

} // namespace Kestrel::Test
