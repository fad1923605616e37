// The PDF reader of the offline checks, on hostile and odd files: every bound holds and says what it met.
#include "KivSDK/Provenance/detail/PdfReader.hpp"

#include <gtest/gtest.h>

#include "KivSDK/Provenance/detail/CertificatePdf.hpp"
#include "support/CertificateMaker.hpp"

namespace {

using kiv::detail::PdfDocument;
using kiv::detail::PdfObject;
using kivtest::pdfOf;

zu::Data bytes(const std::string& text) { return {text.begin(), text.end()}; }

std::string catalogWith(const std::string& entries) { return "<< /Type /Catalog " + entries + " >>"; }

// What reading the file's signature and attachments says first: the open's error, else the attachments',
// else the signature's; empty when all read.
std::string firstProblem(const zu::Data& pdf) {
  const auto document = PdfDocument::open(pdf);
  if (!document) return document.error().localizedDescription();
  const auto attachments = kiv::detail::readAttachments(*document);
  if (!attachments) return attachments.error().localizedDescription();
  const auto signature = kiv::detail::readSignature(*document);
  return signature ? "" : signature.error().localizedDescription();
}

struct Hostile {
  const char* name;
  zu::Data pdf;
  std::string problem;
};

class HostilePdf : public ::testing::TestWithParam<Hostile> {};

TEST_P(HostilePdf, IsRefusedWithWhatIsWrong) {
  const std::string problem = firstProblem(GetParam().pdf);
  EXPECT_NE(problem.find(GetParam().problem), std::string::npos) << problem;
}

std::string nested(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') +
         std::string(static_cast<std::size_t>(depth), ']');
}

const std::string kStream = "<< /Type /EmbeddedFile /Length 5 >>\nstream\nhello\nendstream";

std::string attachmentsNode(const std::string& names, const std::string& more = "") {
  return catalogWith("/Names << /EmbeddedFiles << /Names [" + names + "] >> >> " + more);
}

std::string filespec(int stream) {
  return "<< /Type /Filespec /EF << /F " + std::to_string(stream) + " 0 R >> >>";
}

INSTANTIATE_TEST_SUITE_P(
    Files, HostilePdf,
    ::testing::Values(
        Hostile{"empty", {}, "not a readable PDF: no startxref near the end at byte 0"},
        Hostile{"startxref_past_the_end", bytes("%PDF-1.7\nstartxref\n99999\n%%EOF\n"),
                "a startxref offset outside the file"},
        Hostile{
            "cross_reference_stream",
            bytes("%PDF-1.7\n1 0 obj\n<< /Type /XRef >>\nstream\n\nendstream\nendobj\nstartxref\n9\n%%EOF\n"),
            "no cross-reference table (cross-reference streams are not read)"},
        Hostile{"sections_that_loop",
                bytes("%PDF-1.7\nxref\n0 0\ntrailer\n<< /Prev 9 >>\nstartxref\n9\n%%EOF\n"),
                "cross-reference sections that loop"},
        Hostile{
            "count_the_file_does_not_back",
            bytes("%PDF-1.7\nxref\n0 4000000000\n0000000000 65535 f \ntrailer\n<< >>\nstartxref\n9\n%%EOF\n"),
            "a broken cross-reference entry"},
        Hostile{"object_not_where_the_table_says",
                bytes("%PDF-1.7\n2 0 obj\n<< >>\nendobj\nxref\n1 1\n0000000009 00000 n \ntrailer\n<< /Root 1 "
                      "0 R >>\n"
                      "startxref\n29\n%%EOF\n"),
                "no object 1 where the cross-reference table puts it"},
        Hostile{"nesting_beyond_the_bound", pdfOf({{1, catalogWith("/Deep " + nested(40))}}, "/Root 1 0 R"),
                "objects nested too deeply"},
        Hostile{"repeated_key", pdfOf({{1, "<< /Type /Catalog /Type /Pages >>"}}, "/Root 1 0 R"),
                "a dictionary that repeats the key /Type"},
        Hostile{"string_without_end", pdfOf({{1, catalogWith("/T (open")}}, "/Root 1 0 R"),
                "a string that does not end"},
        Hostile{"stream_longer_than_the_file",
                pdfOf({{1, attachmentsNode("(a) 2 0 R")},
                       {2, filespec(3)},
                       {3, "<< /Length 99999 >>\nstream\nhello\nendstream"}},
                      "/Root 1 0 R"),
                "a stream /Length outside the file"},
        Hostile{"compressed_attachment",
                pdfOf({{1, attachmentsNode("(a) 2 0 R")},
                       {2, filespec(3)},
                       {3, "<< /Length 5 /Filter /FlateDecode >>\nstream\nhello\nendstream"}},
                      "/Root 1 0 R"),
                "a stream with a filter, which this reader does not decode"},
        Hostile{
            "names_tree_that_loops",
            pdfOf({{1, catalogWith("/Names << /EmbeddedFiles 2 0 R >>")}, {2, "<< /Kids [2 0 R 2 0 R] >>"}},
                  "/Root 1 0 R"),
            "tree is deeper or larger than a certificate's"},
        Hostile{"one_stream_under_many_names",
                pdfOf({{1, attachmentsNode("(a) 2 0 R (b) 2 0 R (c) 2 0 R (d) 2 0 R")},
                       {2, filespec(3)},
                       {3, "<< /Length 300 >>\nstream\n" + std::string(300, 'x') + "\nendstream"}},
                      "/Root 1 0 R"),
                "the PDF's attachments are larger than the PDF"},
        Hostile{"two_signatures",
                pdfOf({{1, attachmentsNode("", "/AcroForm << /Fields [2 0 R 3 0 R] >>")},
                       {2, "<< /FT /Sig /V << /Contents <00> /ByteRange [0 1 2 3] >> >>"},
                       {3, "<< /FT /Sig /V << /Contents <00> /ByteRange [0 1 2 3] >> >>"}},
                      "/Root 1 0 R"),
                "the PDF holds 2 signatures where a certificate has one"},
        Hostile{"no_signature",
                pdfOf({{1, attachmentsNode("(a) 2 0 R")}, {2, filespec(3)}, {3, kStream}}, "/Root 1 0 R"),
                "the PDF has no form (/AcroForm), so no signature"}),
    [](const auto& info) { return info.param.name; });

TEST(PdfReader, ReadsStringsNamesAndReferencesAsTheFormatWritesThem) {
  const auto pdf = pdfOf(
      {{1, "<< /S (a\\(b\\)c\\\\d\\101\\n\\\ne(f)) /H <41 4> /N /A#20B /R 2 0 R /I -7 /F 1.5 /Z null >>"}},
      "/Root 1 0 R");
  const auto document = PdfDocument::open(pdf);
  ASSERT_TRUE(document) << document.error().localizedDescription();
  const auto object = document->resolve(*document->trailer().find("Root"));
  ASSERT_TRUE(object);
  const auto& entries = *object->dictionary();
  EXPECT_EQ(entries.find("S")->string()->bytes, "a(b)c\\dA\ne(f)");
  EXPECT_EQ(entries.find("H")->string()->bytes, "A@");
  EXPECT_EQ(entries.find("N")->name()->text, "A B");
  EXPECT_EQ(entries.find("R")->reference()->number, 2u);
  EXPECT_EQ(*entries.find("I")->integer(), -7);
  EXPECT_TRUE(entries.find("Z")->isNull());
  EXPECT_TRUE(document->resolve(*entries.find("R"))->isNull()) << "a reference to no object is null";
  const auto& hex = *entries.find("H")->string();
  EXPECT_EQ(std::string(pdf.begin() + static_cast<long>(hex.begin), pdf.begin() + static_cast<long>(hex.end)),
            "<41 4>");
}

TEST(PdfReader, TheNewestRevisionWinsAndMayFreeAnObject) {
  const zu::Data base = pdfOf({{1, "<< /V (old) >>"}, {2, "<< /W 1 >>"}}, "/Root 1 0 R /Size 3");
  std::string text(base.begin(), base.end());
  const std::string previous = text.substr(text.rfind("startxref") + 10);
  const std::size_t object = text.size();
  text += "1 0 obj\n<< /V (new) >>\nendobj\n";
  const std::size_t xref = text.size();
  text += "xref\n1 2\n" + kivtest::xrefEntry(object) +
          "0000000000 00001 f \ntrailer\n<< /Root 1 0 R /Size 3 /Prev " +
          std::to_string(std::stoul(previous)) + " >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
  const zu::Data pdf = bytes(text);  // the document reads these bytes: they must outlive it
  const auto document = PdfDocument::open(pdf);
  ASSERT_TRUE(document) << document.error().localizedDescription();
  EXPECT_EQ(
      document->resolve(PdfObject{kiv::detail::PdfReference{1, 0}})->dictionary()->find("V")->string()->bytes,
      "new");
  EXPECT_TRUE(document->resolve(PdfObject{kiv::detail::PdfReference{2, 0}})->isNull());
}

}  // namespace
