#include "sbin/foreign_panel/gunzip.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include <isa-l/igzip_lib.h>

namespace foreign_panel {
namespace {

constexpr std::size_t kMostAtOnce = 1 << 30;

const char* Explain(int code) {
    if (code == ISAL_INCORRECT_CHECKSUM) return "its sum is wrong";
    return code == ISAL_INVALID_WRAPPER ? "no gzip header" : "wrong data";
}

}  // namespace

struct Gunzip::Impl {
    Source source;
    std::string name;
    inflate_state state{};
    bool inside = false, begun = false;

    [[noreturn]] void Damaged(const char* why) const {
        throw std::runtime_error(name + ": damaged: " + why);
    }
    bool Fill() {
        const std::string_view bytes = source();
        // The library does not change its input.
        state.next_in = reinterpret_cast<uint8_t*>(const_cast<char*>(bytes.data()));
        state.avail_in = static_cast<uint32_t>(bytes.size());
        return !bytes.empty();
    }
    /// False at the end of the last member; zeros that fill a tape's block are no member.
    bool Begin() {
        while (true) {
            if (state.avail_in == 0 && !Fill()) return false;
            if (*state.next_in != 0 || !begun) break;
            ++state.next_in;
            --state.avail_in;
        }
        isal_inflate_reset(&state);
        state.crc_flag = ISAL_GZIP;
        return inside = begun = true;
    }
};

Gunzip::Gunzip(Source source, std::string name) : impl_(std::make_unique<Impl>()) {
    impl_->source = std::move(source);
    impl_->name = std::move(name);
    isal_inflate_init(&impl_->state);
}

Gunzip::~Gunzip() = default;

std::size_t Gunzip::Read(char* to, std::size_t room) {
    inflate_state& state = impl_->state;
    state.next_out = reinterpret_cast<uint8_t*>(to);
    state.avail_out = static_cast<uint32_t>(std::min<std::size_t>(room, kMostAtOnce));
    const uint32_t wanted = state.avail_out;
    while (state.avail_out > 0) {
        if (!impl_->inside && !impl_->Begin()) break;
        const int code = isal_inflate(&state);
        if (code < 0) impl_->Damaged(Explain(code));
        if (state.block_state == ISAL_BLOCK_FINISH)
            impl_->inside = false;
        else if (state.avail_out > 0 && state.avail_in == 0 && !impl_->Fill())
            impl_->Damaged("it ends too early");
    }
    return wanted - state.avail_out;
}

}  // namespace foreign_panel
