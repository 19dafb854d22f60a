// fuzz_qmux_reader.cpp - libFuzzer target over the client's QMUX reader, fed what a modem sends in chunks whose
// size byte 0 picks: every frame out is whole and consistent, the reader never keeps more than one largest frame
// plus a chunk, and each frame goes through the TLV lookup and the record.
#include <algorithm>
#include <cstdlib>

#include "qmux_frame.h"
#include "record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace kvn_qmi;
    const size_t chunk = size ? 1 + data[0] * 16u : 1;
    qmux::Reader reader;
    for (size_t pos = 1; pos < size; pos += chunk) {
        reader.feed(data + pos, std::min(chunk, size - pos));
        while (auto f = reader.next()) {
            const size_t head = f->service == qmux::kCtl ? qmux::kCtlHeader : qmux::kServiceHeader;
            if (f->sdu.size() < head || size_t(f->sdu[head - 2] | f->sdu[head - 1] << 8) != f->sdu.size() - head)
                std::abort();
            (void)qmux::result_ok(f->sdu.data() + head, f->sdu.size() - head);
            if (f->service != qmux::kCtl && record_line("ind", f->service, f->sdu).empty())
                std::abort(); // a checked service frame always makes a line
        }
        if (reader.buffered() > qmux::kMaxLength + qmux::kQmuxHeader + chunk)
            std::abort();
    }
    return 0;
}
