// fuzz_qmux_reader.cpp - libFuzzer target over the client's QMUX reader: the
// input is what a modem sends, fed in chunks whose size byte 0 picks. Every
// frame that comes out must be whole and consistent (its QMI length matching
// what it carries), the reader must never keep more than one frame of the
// largest length plus a chunk, and each frame also goes through the TLV
// lookups and the record line.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "qmux_frame.h"
#include "record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace kvn_qmi;
    if (size < 1)
        return 0;
    const size_t chunk = 1 + data[0] * 16u;
    qmux::Reader reader;
    for (size_t pos = 1; pos < size; pos += chunk) {
        const size_t n = size - pos < chunk ? size - pos : chunk;
        reader.feed(data + pos, n);
        while (auto f = reader.next()) {
            const bool ctl = f->service == qmux::kCtl;
            const size_t head = ctl ? qmux::kCtlHeader : qmux::kServiceHeader;
            if (f->sdu.size() < head || size_t(f->sdu[head - 2] | f->sdu[head - 1] << 8) != f->sdu.size() - head)
                std::abort();
            (void)qmux::result_ok(f->sdu.data() + head, f->sdu.size() - head);
            if (!ctl && record_line("ind", f->service, f->sdu).empty())
                std::abort(); // a checked service frame always makes a line
        }
        if (reader.buffered() > qmux::kMaxLength + qmux::kQmuxHeader + 1 + chunk)
            std::abort();
    }
    return 0;
}
