// device_tests.cpp - the modem side of the tool's device tests, as rows of
// extend command 4: the GPIO (request type 0) and RF-transmit (type 1) tests,
// which keep their state in EFS files of subscription 0, and the common
// messages SSR (31), full dump (99) and NV sync (35). Also logs every change
// of the modem print-switch files, as the modem notes a new print setting.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "kvn_wire.h"
#include "services.h"

namespace kvn_sim {
namespace {

constexpr uint32_t kRequestGpio = 0;
constexpr uint32_t kRequestRfTx = 1;
constexpr uint32_t kMsgSsr = 31;
constexpr uint32_t kMsgFullDump = 99;
constexpr uint32_t kMsgNvSync = 35;
constexpr uint32_t kGpioMax = 125; // values that fit the 512-byte payload after offset 12
constexpr auto kRestartFor = std::chrono::milliseconds(2000);

const char kGpioFile[] = "/nv/item_files/modem/pelmox/rf_ant_port_config";
const char kRfTxFile[] = "/nv/item_files/modem/antenna/ant_tx_config";
const char kSsrLevel[] = "persist.vendor.ssr.restart_level";
const char kSsrClosed[] = "ALL_DISABLE";

// The files the print switches of the smart test write or delete.
const char *const kPrintSwitchFiles[] = {
    "/hydra/hydra_print_mask",
    "/nv/item_files/modem/pelmox/qmi_print_flag",
    "/nv/item_files/modem/pelmox/rf_print_mask",
};

Bytes u32_pair(uint32_t a, uint32_t b)
{
    Bytes out(8);
    kvn_wire::put_u32(out.data(), a);
    kvn_wire::put_u32(out.data() + 4, b);
    return out;
}

// A restart the request asked for happens once its reply is queued.
void restart_after_reply(Handset &h)
{
    h.after_reply([&h] {
        if (h.restart_modem)
            h.restart_modem(kRestartFor);
    });
}

// GPIO test: count at 8, values from 12; one byte (the low 8 bits) per value.
ExtendReply gpio_test(Handset &h, const uint8_t *p, size_t len)
{
    uint32_t count = len >= 12 ? kvn_wire::get_u32(p + 8) : 0;
    if (count == 0 || count > kGpioMax || 12 + 4 * static_cast<size_t>(count) > len) {
        h.note(kLogWarn, "GPIO test refused: count " + std::to_string(count));
        return {Extend4Table::kRefused, {}};
    }
    Bytes file;
    for (uint32_t i = 0; i < count; ++i)
        file.push_back(p[12 + 4 * i]);
    std::string err;
    if (!h.store.efs_put(0, kGpioFile, file, &err)) {
        h.note(kLogError, "GPIO test: " + err);
        return {Extend4Table::kRefused, {}};
    }
    return {0, u32_pair(kRequestGpio, 0)};
}

// RF-transmit test: v_ant, v_sys and the 8-byte band list, kept as they came.
ExtendReply rf_tx_test(Handset &h, const uint8_t *p, size_t len)
{
    if (len < 24)
        return {Extend4Table::kRefused, {}};
    std::string err;
    if (!h.store.efs_put(0, kRfTxFile, Bytes(p + 8, p + 24), &err)) {
        h.note(kLogError, "RF transmit test: " + err);
        return {Extend4Table::kRefused, {}};
    }
    return {0, u32_pair(kRequestRfTx, 0)};
}

// With SSR closed the modem writes a full dump before it restarts; otherwise
// the request only restarts it. The dump is on disk and counted before the
// reply goes out.
CommonAnswer full_dump(Handset &h, const uint8_t *v, size_t n)
{
    auto level = h.props.get(kSsrLevel);
    if (level && *level == kSsrClosed) {
        // Beneath the state directory without following links, owner-only.
        UniqueFd dir = h.store.open_beneath("dumps", true);
        auto taken = [&](const std::string &n) {
            struct stat st;
            return dir && fstatat(dir.get(), n.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        };
        uint64_t number = h.counters.full_dumps + 1;
        std::string name = "fulldump-" + std::to_string(std::time(nullptr)) + "-" + std::to_string(number) + ".bin";
        for (int i = 2; taken(name); ++i)
            name = "fulldump-" + std::to_string(std::time(nullptr)) + "-" + std::to_string(number) + "-" +
                   std::to_string(i) + ".bin";
        std::string text = "kvn-sim full dump " + std::to_string(number) + ", request " + to_hex(v, n) + "\n";
        for (const auto &[path, size] : h.store.efs_ls(0, "/"))
            text += "efs 0 " + path + " " + std::to_string(size) + "\n";
        std::string err = dir ? "" : std::string("dumps: ") + strerror(errno);
        if (dir && write_file_atomic_at(dir.get(), name, h.store.tmp_fd(),
                                        reinterpret_cast<const uint8_t *>(text.data()), text.size(), &err)) {
            ++h.counters.full_dumps;
            h.note(kLogInfo, "full dump written: dumps/" + name);
        } else {
            h.note(kLogError, "full dump not written: " + err);
        }
    } else {
        h.note(kLogInfo, "full dump requested with SSR enabled: the modem restarts instead");
    }
    restart_after_reply(h);
    return {0, {}};
}

void log_print_switch(Handset &h, unsigned sub, const std::string &path, const Bytes *data)
{
    for (const char *f : kPrintSwitchFiles)
        if (path == f)
            h.note(kLogInfo, "print switch " + path + " of subscription " + std::to_string(sub) +
                                 (data ? " now " + to_hex(*data) : std::string(" deleted")));
}

} // namespace

void register_device_tests(Handset &h)
{
    h.extend4.add_request(kRequestGpio, [&h](const uint8_t *p, size_t len, uint64_t) { return gpio_test(h, p, len); });
    h.extend4.add_request(kRequestRfTx, [&h](const uint8_t *p, size_t len, uint64_t) { return rf_tx_test(h, p, len); });
    h.extend4.add_message(kMsgSsr, [&h](const uint8_t *, size_t, uint64_t) {
        h.note(kLogInfo, "SSR requested");
        restart_after_reply(h);
        return CommonAnswer{0, {}};
    });
    h.extend4.add_message(kMsgFullDump, [&h](const uint8_t *v, size_t n, uint64_t) { return full_dump(h, v, n); });
    h.extend4.add_message(kMsgNvSync, [&h](const uint8_t *, size_t, uint64_t) {
        ++h.counters.nv_syncs;
        h.note(kLogInfo, "NV sync");
        return CommonAnswer{0, {}};
    });
    h.store.on_efs_change = [&h](unsigned sub, const std::string &path, const Bytes *data) {
        log_print_switch(h, sub, path, data);
    };
}

} // namespace kvn_sim
