// radio_state.cpp - the default radio values of the simulated modem: a
// handset camped on LTE with NR, plausible per-chain levels, both
// subscriptions slightly apart.
#include "radio_state.h"

#include <cstring>

namespace kvn_sim {

namespace {

class Packer {
public:
    Packer &u8(uint8_t v)
    {
        b_.push_back(v);
        return *this;
    }
    Packer &u16(uint16_t v) { return raw(&v, 2); }
    Packer &u32(uint32_t v) { return raw(&v, 4); }
    Packer &i32(int32_t v) { return raw(&v, 4); }
    Packer &f32(float v) { return raw(&v, 4); }
    Bytes take() { return std::move(b_); }

private:
    // The host is little-endian, as the modem's records are.
    Packer &raw(const void *p, size_t n)
    {
        const auto *c = static_cast<const uint8_t *>(p);
        b_.insert(b_.end(), c, c + n);
        return *this;
    }
    Bytes b_;
};

constexpr uint32_t kDefaultIds[] = {6, 7, 82, 94, 100, 103, 104, 105, 106, 107, 108, 110, 111, 112, 113, 135};

} // namespace

Bytes default_vs_stat(unsigned sub, uint32_t id)
{
    const float d = sub ? -3.0f : 0.0f; // the second subscription is a little weaker
    Packer p;
    switch (id) {
    case 82:
    case 103:
    case 104:
    case 105:
    case 106:
    case 107:
    case 108: {
        const int cell = id == 82 ? 0 : static_cast<int>(id - 102);
        p.u8(1).u8(0).i32(1300 + 100 * cell + static_cast<int>(sub) * 50).u16(static_cast<uint16_t>(101 + cell)).u8(cell == 0);
        p.u16(0x000F);
        for (int rx = 0; rx < 4; ++rx)
            p.f32(-95.5f - rx - cell + d).f32(-10.25f - 0.5f * rx).f32(-65.75f - rx + d).f32(12.5f - rx);
        break;
    }
    case 94:
        p.u32(1).f32(-60.25f + d).f32(-61.5f + d).f32(-63.75f + d).f32(-64.0f + d);
        break;
    case 112:
        p.u32(1).f32(18.5f + d).f32(17.25f + d).f32(15.0f + d).f32(14.75f + d);
        break;
    case 113:
        p.u32(1);
        for (uint8_t i = 0; i < 12; ++i)
            p.u8(static_cast<uint8_t>(i / 2));
        break;
    case 135:
    case 6:
    case 7: {
        const float cell = id == 135 ? 0.0f : static_cast<float>(id - 5);
        p.u32(1).f32(-88.5f - cell + d).f32(-89.25f - cell + d).f32(-91.0f - cell + d).f32(-92.75f - cell + d);
        p.f32(-11.5f);
        break;
    }
    case 110:
        p.u8(1).f32(-70.5f + d).f32(-72.25f + d);
        break;
    case 111:
        p.u8(1).f32(-75.0f + d).f32(-77.5f + d);
        break;
    case 100:
        p.u8(1).u8(4).u16(static_cast<uint16_t>(2 + sub)).u16(1).u8(0).u8(1);
        break;
    default:
        break;
    }
    return p.take();
}

RadioState::RadioState()
{
    for (unsigned sub = 0; sub < kSubs; ++sub)
        for (uint32_t id : kDefaultIds)
            vs_stats[sub][id] = {VsRecord{static_cast<uint16_t>(sub), id, default_vs_stat(sub, id)}};
}

} // namespace kvn_sim
