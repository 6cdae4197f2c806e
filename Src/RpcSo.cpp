/*
 * RpcSo.cpp - the RPC user-marshal routines of the string objects, which
 * let the RPC layer pass a VekStr or VekWcs by value.
 *
 * Wire form, the same for both sides (32-bit words in host order, no
 * padding, no alignment required of the buffer):
 *   +0   the object's magic word (type mark, reserve mode, fixed-buffer bit)
 *   +4   size of the data block, 0 for an empty string
 *   +8   len in characters
 *   +12  len characters without terminator (2 x len bytes for VekWcs)
 * The code is portable: every platform writes and reads the same bytes.
 */
#include "StrCore.h"

namespace {

template <class S>
struct Marshal {
    using C = vek::StrCore<S>;
    using Obj = typename S::Obj;
    using Ch = typename S::Ch;
    static constexpr vek_u32 kHdr = 12;

    static void put_word(vek_u8* p, vek_u32 v) { std::memcpy(p, &v, 4); }
    static vek_u32 get_word(const vek_u8* p) {
        vek_u32 v;
        std::memcpy(&v, p, 4);
        return v;
    }

    static vek_u32 size(vek_u32 offset, Obj* obj) {
        if (!obj) {
            vek_assert__("obj", __FILE__, __LINE__);
            return offset;
        }
        const typename S::Data* d = C::check(obj, __LINE__)->data;
        long size = d->size;
        if (!(size >= 0L)) {
            vek_assert__("size >= 0L", __FILE__, __LINE__);
        }
        return offset + kHdr + (vek_u32)sizeof(Ch) * (vek_u32)d->len;
    }

    static vek_u8* marshal(vek_u8* buffer, Obj* obj) {
        if (!obj) {
            vek_assert__("obj", __FILE__, __LINE__);
            return buffer;
        }
        const typename S::Data* d = C::check(obj, __LINE__)->data;
        put_word(buffer, obj->magic & ~vek::kStrWatched);  // a local mark, not part of the string
        put_word(buffer + 4, (vek_u32)d->size);
        put_word(buffer + 8, (vek_u32)d->len);
        size_t bytes = sizeof(Ch) * (size_t)d->len;
        std::memcpy(buffer + kHdr, C::chars(d), bytes);
        return buffer + kHdr + bytes;
    }

    // Rebuilds the string from the wire: its reserve mode and capacity as
    // sent, then the characters. A live target is reused; any other must be
    // zeroed, as the RPC runtime hands it over.
    static vek_u8* unmarshal(vek_u8* buffer, Obj* obj) {
        if (!obj) {
            vek_assert__("obj", __FILE__, __LINE__);
            return buffer;
        }
        vek_u32 magic = get_word(buffer);
        vek_s32 size = (vek_s32)get_word(buffer + 4);
        vek_s32 len = (vek_s32)get_word(buffer + 8);
        if (!(size == 0 || size > len)) {
            vek_assert__("size == 0 || size > len", __FILE__, __LINE__);
        }
        if (len < 0 || len > C::kMaxLen) {
            len = 0;
        }
        vek_s32 rsv = (vek_s32)((magic >> 24) & 0xFu);
        if (obj->data) {
            C::clear(C::check(obj, __LINE__));
            C::set_rsv(obj, rsv);
            C::set_capa(obj, size < 1 ? 0 : size - 1);
        } else {
            if (obj->magic) {
                vek_assert__("!obj->magic", __FILE__, __LINE__);
            }
            C::init_sized(obj, size, rsv, __LINE__);
        }
        const vek_u8* chars = buffer + kHdr;
        if (len >= 1) {
            // The characters may be unaligned on the wire: read the first
            // one by bytes, then copy them all by bytes.
            Ch first;
            std::memcpy(&first, chars, sizeof first);
            if (first) {
                C::set_units(obj, chars, len);
            } else {
                C::clear(obj);
            }
        }
        return buffer + kHdr + sizeof(Ch) * (size_t)len;
    }

    static void free(Obj* obj) {
        if (!obj) {
            vek_assert__("obj", __FILE__, __LINE__);
            return;
        }
        C::destroy(C::check(obj, __LINE__));
    }
};

using StrMarshal = Marshal<vek::StrSide>;
using WcsMarshal = Marshal<vek::WcsSide>;

} // namespace

extern "C" {

VEK_API vek_u32 VekStr_UserSize(vek_u32* flags, vek_u32 offset, VekStr* str) {
    (void)flags;
    return StrMarshal::size(offset, str);
}

VEK_API vek_u8* VekStr_UserMarshal(vek_u32* flags, vek_u8* buffer, VekStr* str) {
    (void)flags;
    return StrMarshal::marshal(buffer, str);
}

VEK_API vek_u8* VekStr_UserUnmarshal(vek_u32* flags, vek_u8* buffer, VekStr* str) {
    (void)flags;
    return StrMarshal::unmarshal(buffer, str);
}

VEK_API void VekStr_UserFree(vek_u32* flags, VekStr* str) {
    (void)flags;
    StrMarshal::free(str);
}

VEK_API vek_u32 VekWcs_UserSize(vek_u32* flags, vek_u32 offset, VekWcs* wcs) {
    (void)flags;
    return WcsMarshal::size(offset, wcs);
}

VEK_API vek_u8* VekWcs_UserMarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs) {
    (void)flags;
    return WcsMarshal::marshal(buffer, wcs);
}

VEK_API vek_u8* VekWcs_UserUnmarshal(vek_u32* flags, vek_u8* buffer, VekWcs* wcs) {
    (void)flags;
    return WcsMarshal::unmarshal(buffer, wcs);
}

VEK_API void VekWcs_UserFree(vek_u32* flags, VekWcs* wcs) {
    (void)flags;
    WcsMarshal::free(wcs);
}

} // extern "C"
