// Panel data between editions, for measuring:
//   bench_convert make FILE ELEMENTS MIB     a document of the smaller edition
//   bench_convert ours FILE OUT              load, convert for the larger edition, save
//   bench_convert bare FILE OUT              pugixml alone: load, save, nothing lost
//   bench_convert default FILE OUT           the same as its defaults are: blanks are dropped
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include <pugixml.hpp>

#include "vel/vel_xml.h"

#include "backup_common/backup2_convert.h"

namespace {

/// Half databases, half mailboxes; a note in each fills the document up to its size.
void Make(const std::string& path, int elements, std::size_t mib) {
    std::ofstream out(path, std::ios::binary);
    const std::size_t each = (mib << 20) / static_cast<std::size_t>(elements);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<doc>\n  <info dist=\"1\"/>\n"
           "  <elem name=\"user.edit\" elid=\"bob\"/>\n";
    for (const std::string group : {"db", "email"}) {
        out << "  <elem name=\"" << group << "\">\n";
        for (int i = 0; i < elements / 2; ++i) {
            const std::string name = group + std::to_string(i);
            const std::string elid = group == "db" ? name + "-&gt;MySQL" : name + "@example.com";
            std::string text = "    <elem elid=\"" + elid + "\">\n      <param name=\"name\">" +
                               name +
                               "</param>\n      <param name=\"server\">MySQL</param>\n"
                               "      <param name=\"note\">";
            const std::string end = "</param>\n    </elem>\n";
            if (text.size() + end.size() < each) text.append(each - text.size() - end.size(), 'x');
            out << text << end;
        }
        out << "  </elem>\n";
    }
    out << "</doc>\n";
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

void Ours(const std::string& from, const std::string& to) {
    vel_xml::Xml xml;
    xml.LoadFromFile(from, vel_xml::Texts::Joined);
    backup2::Convert(xml, "3");
    xml.Save(to, false);
}

void Bare(const std::string& from, const std::string& to, unsigned parse, unsigned format) {
    pugi::xml_document document;
    if (!document.load_file(from.c_str(), parse)) throw std::runtime_error("cannot load " + from);
    if (!document.save_file(to.c_str(), "  ", format))
        throw std::runtime_error("cannot save " + to);
}

}  // namespace

int main(int argc, char** argv) try {
    const std::string action = argc > 3 ? argv[1] : "";
    if (action == "make" && argc > 4) {
        Make(argv[2], std::atoi(argv[3]), static_cast<std::size_t>(std::atoi(argv[4])));
    } else if (action == "ours") {
        Ours(argv[2], argv[3]);
    } else if (action == "bare") {
        // Everything that the document holds comes out again, as with ours.
        Bare(argv[2], argv[3], pugi::parse_full | pugi::parse_ws_pcdata, pugi::format_raw);
    } else if (action == "default") {
        Bare(argv[2], argv[3], pugi::parse_default, pugi::format_default);
    } else {
        std::cerr << "usage: bench_convert make|ours|bare|default FILE ...\n";
        return 2;
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << "bench_convert: " << error.what() << "\n";
    return 1;
}
