#include "sbin/qortar/gunzip.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <isa-l/igzip_lib.h>

#include "vel/vel_err.h"
#include "vel/vel_file.h"

namespace qortar {
namespace {

constexpr std::size_t kInput = 512 << 10;

const char* Explain(int code) {
    switch (code) {
        case ISAL_INCORRECT_CHECKSUM:
            return "the checksum is wrong";
        case ISAL_INVALID_WRAPPER:
        case ISAL_UNSUPPORTED_METHOD:
            return "no gzip member begins here";
        default:
            return "the compressed bytes are damaged";
    }
}

}  // namespace

struct Gunzip::Impl {
    Slices& slices;
    Place position;       // of the next byte that comes into the input buffer
    Place member;         // the one that is being read
    bool inside = false;  // a member is begun and not ended
    bool local = false;
    std::size_t in_member = 0;
    Slice slice;
    std::vector<unsigned char> input = std::vector<unsigned char>(kInput);
    inflate_state state{};

    explicit Impl(Slices& from) : slices(from) {}

    [[noreturn]] void Damaged(const std::string& why) const {
        throw vel_err::Error("archive", "damaged",
                             slices.Path(member.slice) + ": gzip member at " +
                                 std::to_string(member.member) + ": " + why);
    }

    bool OpenNext() {
        const uint32_t number = slice.fd ? position.slice + 1 : position.slice;
        slice = Slice();  // lets go before it asks for the next
        const bool asked = number != position.slice;
        if (asked && (local ? !vel_file::Exists(slices.Path(number)) : !slices.MayExist(number)))
            return false;
        slice = slices.Open(number);
        position = {number, asked ? 0 : position.member};
        return true;
    }

    /// False when there is no further slice.
    bool FillInput() {
        while (!slice.fd || position.member >= slice.size)
            if (!OpenNext()) return false;
        ssize_t n = 0;
        do {
            n = ::pread(slice.fd, input.data(), input.size(), static_cast<off_t>(position.member));
        } while (n < 0 && errno == EINTR);
        if (n < 0) vel_err::RaiseErrno("read", slice.path, errno);
        if (n == 0) throw vel_err::Error("archive", "damaged", slice.path + ": became shorter");
        position.member += static_cast<uint64_t>(n);
        state.next_in = input.data();
        state.avail_in = static_cast<uint32_t>(n);
        return true;
    }

    bool BeginMember() {
        if (state.avail_in == 0 && !FillInput()) return false;
        member = {position.slice, position.member - state.avail_in};
        isal_inflate_reset(&state);
        state.crc_flag = ISAL_GZIP;
        inside = true;
        in_member = 0;
        return true;
    }

    /// Until the block is full or the member ended.
    void Inflate(Block& block) {
        state.next_out = block.bytes.get();
        state.avail_out = Block::kCapacity;
        while (true) {
            const int code = isal_inflate(&state);
            if (code < 0) Damaged(Explain(code));
            block.size = Block::kCapacity - state.avail_out;
            if (state.block_state == ISAL_BLOCK_FINISH) inside = false;
            if (!inside || state.avail_out == 0) return;
            if (state.avail_in == 0 && !FillInput())
                Damaged("it is cut, " + slices.Path(position.slice + 1) + " is missing");
        }
    }
};

Gunzip::Gunzip(Slices& slices, Place start) : impl_(std::make_unique<Impl>(slices)) {
    impl_->position = start;
    isal_inflate_init(&impl_->state);
}

Gunzip::~Gunzip() = default;

void Gunzip::StayLocal() { impl_->local = true; }

bool Gunzip::Read(Block& block) {
    do {
        if (!impl_->inside && !impl_->BeginMember()) return false;
        block.place = impl_->member;
        block.in_member = impl_->in_member;
        impl_->Inflate(block);
        impl_->in_member += block.size;
    } while (block.size == 0);
    return true;
}

}  // namespace qortar
