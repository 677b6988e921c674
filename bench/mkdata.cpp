// Test data for measurements: the same bytes on every machine for the same seed.
//   mkdata site DIR SEED FILES   a hosting server's tree: code, pages, data and photographs in
//   small files mkdata big  DIR SEED MIB     few big files: 35 % database dump, 25 % mailboxes, 40
//   % photographs mkdata change DIR SEED       changes 1 % of the files below DIR, removes 0.5 %,
//   adds 0.5 %
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

// splitmix64: every stream is a function of its seed alone, whatever the standard library.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15u + 1) {}

    uint64_t Next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }
    uint64_t Below(uint64_t n) { return Next() % n; }
    double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }
    bool Chance(double p) { return Unit() < p; }
    // Normal enough for file sizes: twelve uniform numbers.
    double Normal() {
        double sum = -6;
        for (int i = 0; i < 12; ++i) sum += Unit();
        return sum;
    }

private:
    uint64_t state_;
};

// 6,000 made-up words, drawn so that the k-th is about 1/k as frequent as the first: text made of
// them compresses like text that people write.
class Vocabulary {
public:
    Vocabulary() {
        static constexpr std::array kOnsets{"b", "c", "d",  "f",  "g",  "l",  "m",  "n",
                                            "p", "r", "st", "tr", "ch", "pl", "qu", ""};
        static constexpr std::array kVowels{"a", "e", "i", "o", "u", "ea", "ou", "io"};
        static constexpr std::array kCodas{"n", "r", "s", "t", "l", "", "ng", "ck"};
        Random random(42);
        for (int i = 0; i < kWords; ++i) {
            std::string word;
            for (uint64_t syllables = i < 120 ? 1 : 1 + random.Below(3); syllables > 0; --syllables)
                word.append(kOnsets[random.Below(16)])
                    .append(kVowels[random.Below(8)])
                    .append(kCodas[random.Below(8)]);
            words_.push_back(word);
        }
    }

    const std::string& Draw(Random& random) const {
        // The inverse of a harmonic sum is about an exponential.
        const double rank = std::exp(random.Unit() * std::log(double{kWords})) - 1;
        return words_[static_cast<std::size_t>(rank)];
    }

private:
    static constexpr int kWords = 6000;
    std::vector<std::string> words_;
};

const Vocabulary& Words() {
    static const Vocabulary words;
    return words;
}

std::string Prose(Random& random, uint64_t words) {
    std::string text;
    for (uint64_t i = 0; i < words; ++i) {
        if (i > 0) text += random.Chance(0.08) ? ", " : " ";
        text += Words().Draw(random);
    }
    return text + ".";
}

// A line of a file of one kind: "I" in a template is one of the file's own identifiers, "W" a word,
// "P" a sentence, "9" a number.
class TextFile {
public:
    TextFile(uint64_t seed, std::span<const std::string_view> templates)
        : random_(seed), templates_(templates) {
        for (int i = 0; i < 60; ++i)
            names_.push_back(Words().Draw(random_) + "_" + Words().Draw(random_));
    }

    std::string Make(std::size_t size) {
        std::string text;
        text.reserve(size + 4096);
        while (text.size() < size) {
            // Programs repeat themselves: one line in ten stood a little further up already.
            if (!lines_.empty() && random_.Chance(0.1))
                text += lines_[lines_.size() - 1 -
                               random_.Below(std::min<std::size_t>(lines_.size(), 40))];
            text += lines_.emplace_back(Line());
        }
        text.resize(size);
        return text;
    }

private:
    std::string Line() {
        indent_ = std::clamp(indent_ + static_cast<int>(random_.Below(3)) - 1, 0, 5);
        std::string line(static_cast<std::size_t>(indent_), '\t');
        for (char c : templates_[random_.Below(templates_.size())]) {
            if (c == 'I')
                line += names_[static_cast<std::size_t>(std::pow(random_.Unit(), 2) * 60)];
            else if (c == 'W')
                line += Words().Draw(random_);
            else if (c == 'P')
                line += Prose(random_, 3 + random_.Below(9));
            else if (c == '9')
                line += std::to_string(random_.Below(random_.Chance(0.6) ? 10 : 1000));
            else
                line += c;
        }
        return line + "\n";
    }

    Random random_;
    std::span<const std::string_view> templates_;
    std::vector<std::string> names_, lines_;
    int indent_ = 0;
};

constexpr std::string_view kPhp[] = {"/** P */",
                                     "public function I( $I, $I = null ) {",
                                     "}",
                                     "if ( ! empty( $I['W'] ) && $I ) {",
                                     "foreach ( $I as $I => $I ) {",
                                     "$this->I = I( $I, 'W' );",
                                     "return $I;",
                                     "'W' => __( 'P', 'W' ),",
                                     "// P",
                                     "add_action( 'I', array( $this, 'I' ), 9 );",
                                     "echo '<div class=\"W W\">' . esc_html( $I ) . '</div>';",
                                     "$I[] = array( 'W' => $I, 'W' => 9 );"};
constexpr std::string_view kScript[] = {"function I(I, W) {",
                                        "}",
                                        "var I = document.getElementById('W').value || 9;",
                                        "this.I.W(W, function(W) { return W.I; });",
                                        "if (typeof I !== 'undefined' && I.length > 9) {",
                                        "$('#W .W').on('click', I);",
                                        "// P",
                                        "const W = { W: 9, W: 'W' };",
                                        "return I(W, W);"};
constexpr std::string_view kStyle[] = {".W .I {",
                                       "}",
                                       "margin: 9px 9px;",
                                       "color: #9a9b9c;",
                                       "background: url(/W/W.png);",
                                       "font-size: 9px;",
                                       "display: W;"};
constexpr std::string_view kPage[] = {"<div id=\"I\" class=\"W\">", "</div>", "<p>P P P</p>",
                                      "<li><a href=\"/W/I.html\" title=\"P\">P</a></li>",
                                      "<h3 class=\"W\">P</h3>"};
constexpr std::string_view kJson[] = {"\"I\": { \"W\": \"P\", \"W\": 9 },"};

std::string Noise(uint64_t seed, std::size_t size) {
    Random random(seed);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; i += 8) {
        uint64_t word = random.Next();
        for (std::size_t k = i; k < std::min(i + 8, size); ++k, word >>= 8)
            bytes[k] = static_cast<char>(word);
    }
    return bytes;
}

struct Kind {
    double share;
    std::string_view extension;
    double log_size, spread;  // sizes are log-normal, as measured on web trees
    std::span<const std::string_view> templates;
};
constexpr Kind kKinds[] = {{0.48, "php", 8.6, 1.25, kPhp},   {0.21, "js", 9.3, 1.25, kScript},
                           {0.08, "css", 8.6, 1.25, kStyle}, {0.05, "html", 8.6, 1.25, kPage},
                           {0.04, "json", 8.6, 1.25, kJson}, {0.14, "jpg", 10.3, 0.9, {}}};

const Kind& DrawKind(Random& random) {
    double left = random.Unit();
    for (const Kind& kind : kKinds)
        if ((left -= kind.share) < 0) return kind;
    return kKinds[5];
}

std::string Content(Random& random, const Kind& kind) {
    const auto size = static_cast<std::size_t>(
        std::clamp(std::exp(kind.log_size + kind.spread * random.Normal()), 40.0, 4e6));
    const uint64_t seed = random.Next();
    return kind.templates.empty() ? Noise(seed, size) : TextFile(seed, kind.templates).Make(size);
}

void Save(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush())
        throw std::runtime_error("cannot write " + path.string());
}

uint64_t MakeUser(const fs::path& root, uint64_t seed, uint64_t files) {
    Random random(seed);
    std::vector<fs::path> folders{root};
    fs::create_directories(root);
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < files; ++i) {
        const fs::path& folder = folders[random.Below(folders.size())];
        if (i % 11 == 1 && std::distance(folder.begin(), folder.end()) < 16) {
            folders.push_back(folder / (Words().Draw(random) + std::to_string(i)));
            fs::create_directory(folders.back());
        }
        const Kind& kind = DrawKind(random);
        const std::string content = Content(random, kind);
        Save(folders[random.Below(folders.size())] /
                 (Words().Draw(random) + "-" + std::to_string(i) + "." +
                  std::string(kind.extension)),
             content);
        bytes += content.size();
    }
    return bytes;
}

void MakeSite(const fs::path& dir, uint64_t seed, uint64_t files) {
    const uint64_t users = std::max<uint64_t>(1, files / 1500);
    uint64_t bytes = 0;
    for (uint64_t user = 0; user < users; ++user)
        bytes += MakeUser(dir / ("user" + std::to_string(user)) / "data" / "www",
                          seed * 1000 + user, files * (user + 1) / users - files * user / users);
    std::cout << files << " files, " << bytes << " bytes\n";
}

// Appends pieces until the file has its size.
template <class Piece>
void Grow(const fs::path& path, uint64_t size, Piece piece) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (uint64_t done = 0; done < size;) {
        const std::string text = piece();
        out << text;
        done += text.size();
    }
    if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

std::string InsertStatement(Random& random, uint64_t& id) {
    std::string text = "INSERT INTO `" + Words().Draw(random) + "` VALUES ";
    for (int row = 0; row < 12; ++row)
        text += (row > 0 ? ",(" : "(") + std::to_string(++id) + "," +
                std::to_string(random.Below(5000)) + ",'2023-0" +
                std::to_string(1 + random.Below(9)) + "-1" + std::to_string(random.Below(10)) +
                "','" + Prose(random, 3 + random.Below(14)) + "','" +
                std::to_string(random.Next()) + "')";
    return text + ";\n";
}

std::string Message(Random& random) {
    std::string text = "From " + Words().Draw(random) + "@" + Words().Draw(random) +
                       ".example Mon Jan  1 00:00:00 2024\r\nSubject: " + Prose(random, 6) +
                       "\r\n\r\n";
    for (uint64_t lines = 5 + random.Below(60); lines > 0; --lines)
        text += Prose(random, 12) + "\r\n";
    if (!random.Chance(0.25)) return text;
    static constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (uint64_t lines = 30 + random.Below(1200); lines > 0; --lines) {
        for (int i = 0; i < 76; ++i) text += kDigits[random.Below(64)];
        text += "\r\n";
    }
    return text;
}

void MakeBig(const fs::path& dir, uint64_t seed, uint64_t mib) {
    fs::create_directories(dir);
    const uint64_t total = mib << 20;
    Random random(seed);
    uint64_t id = 0;
    Grow(dir / "dump.sql", total * 35 / 100, [&] { return InsertStatement(random, id); });
    for (int box = 0; box < 5; ++box)
        Grow(dir / ("mailbox" + std::to_string(box)), total / 20, [&] { return Message(random); });
    for (uint64_t photo = 0; photo < 100; ++photo)
        Save(dir / ("photo" + std::to_string(photo) + ".jpg"),
             Noise(seed * 1000 + photo, total / 250));
}

std::string ReadAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void Change(const fs::path& dir, uint64_t seed) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(dir))
        if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    Random random(seed);
    for (std::size_t i = files.size(); i > 1; --i) std::swap(files[i - 1], files[random.Below(i)]);
    const std::size_t changed = files.size() / 100, removed = files.size() / 200;
    for (std::size_t i = 0; i < changed; ++i) {
        std::string bytes = ReadAll(files[i]);
        bytes.insert(random.Below(bytes.size() + 1), Prose(random, 20));
        Save(files[i], bytes);
    }
    for (std::size_t i = changed; i < changed + removed; ++i) fs::remove(files[i]);
    for (std::size_t i = 0; i < removed; ++i)
        Save(files[changed + removed + i].parent_path() / ("new" + std::to_string(i)),
             Content(random, DrawKind(random)));
    std::cout << changed << " changed, " << removed << " removed, " << removed << " new\n";
}

}  // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> args(argv + 1, argv + argc);
    const uint64_t seed = args.size() > 2 ? std::stoull(args[2]) : 0;
    if (args.size() == 4 && args[0] == "site")
        MakeSite(args[1], seed, std::stoull(args[3]));
    else if (args.size() == 4 && args[0] == "big")
        MakeBig(args[1], seed, std::stoull(args[3]));
    else if (args.size() == 3 && args[0] == "change")
        Change(args[1], seed);
    else {
        std::cerr << "usage: mkdata site DIR SEED FILES | big DIR SEED MIB | change DIR SEED\n";
        return 2;
    }
} catch (const std::exception& error) {
    std::cerr << "mkdata: " << error.what() << "\n";
    return 1;
}
