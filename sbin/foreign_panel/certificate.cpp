#include "sbin/foreign_panel/certificate.h"

#include <cctype>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr char kBegin[] = "-----BEGIN ";
constexpr char kDashes[] = "-----";
constexpr std::size_t kLongest = 256 << 10;

/// The next block of `text` from `at` on: its label and its text. False at the end.
bool NextBlock(const std::string& text, std::size_t& at, std::string& label, std::string& block) {
    const std::size_t begin = text.find(kBegin, at);
    if (begin == std::string::npos) return false;
    const std::size_t name = begin + sizeof kBegin - 1, name_end = text.find(kDashes, name);
    if (name_end == std::string::npos || name_end - name > 60) return at = name, true;
    label = text.substr(name, name_end - name);
    const std::string mark = "-----END " + label + kDashes;
    const std::size_t end = text.find(mark, name_end);
    at = end == std::string::npos ? name_end : end + mark.size();
    block = end == std::string::npos ? "" : text.substr(begin, at - begin) + "\n";
    return true;
}

/// Only what PEM is made of: no line of it can be anything else.
bool IsPem(const std::string& block) {
    for (const char c : block)
        if (!std::isalnum(static_cast<unsigned char>(c)) &&
            std::string_view("+/=- \r\n\t:,.").find(c) == std::string_view::npos)
            return false;
    return block.size() <= kLongest;
}

}  // namespace

bool AddCertificate(Job& job, const std::string& name, const std::vector<std::string>& domains,
                    const std::string& pem) {
    std::string key, certificate, chain, label, block;
    for (std::size_t at = 0; NextBlock(pem, at, label, block); block.clear()) {
        if (block.empty() || !IsPem(block)) continue;
        if (str::EndsWith(label, "PRIVATE KEY"))
            key = block;
        else if (label == "CERTIFICATE")
            (certificate.empty() ? certificate : chain) += block;
    }
    if (certificate.empty()) {
        job.Lost("certificate", name, "no certificate in PEM form");
        return false;
    }
    PanelObject object = job.document.Add("certificate", name);
    for (const std::string& domain : domains) object.Param("domain", domain);
    object.Param("key", key).Param("certificate", certificate).Param("chain", chain);
    if (key.empty()) job.Lost("certificate", name, "its private key is not in the archive");
    job.Carried("certificate", name);
    return true;
}

}  // namespace foreign_panel
