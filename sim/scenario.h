// scenario.h - the scenario document: a JSON object that sets a simulated
// handset's state (properties, NV items, EFS files, canned extend replies,
// faults, EFS read chunk size). A document is checked whole before anything
// is applied, so a bad one changes nothing; an unknown key at any level is an
// error that names it. Keys are rows of tables in scenario.cpp.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "handset.h"
#include "util.h"

namespace kvn_sim {

// The largest scenario document kvn-sim reads (4 MiB). Collections inside
// one (faults, NV items, EFS files, ...) have bounds of their own, named in
// the error that refuses a document over them.
inline constexpr size_t kMaxScenarioBytes = 4u << 20;

// Parses scenario text strictly: over kMaxScenarioBytes, a syntax error
// (reported with its line and column) or a key repeated in one object (named)
// is refused. nullopt with err set otherwise.
std::optional<nlohmann::json> parse_scenario_text(std::string_view text, std::string *err);

// Checks `doc` on its own (keys, values, bounds), without a handset.
bool check_scenario(const nlohmann::json &doc, std::string *err);

// Checks `doc`, then checks it against the handset (an EFS file where a
// directory stands, too many faults in all, ...), and only when both pass
// merges it into the handset: a refused document changes nothing. False with
// err set (naming the offending key or value) otherwise.
bool apply_scenario(Handset &h, const nlohmann::json &doc, std::string *err);

// parse_scenario_text, then apply_scenario; memory a large document took is
// given back to the system afterwards.
bool apply_scenario_text(Handset &h, std::string_view text, std::string *err);

// Reads a scenario file (at most kMaxScenarioBytes) and applies it; err names
// the file on failure.
bool apply_scenario_file(Handset &h, const std::string &path, std::string *err);

// Reads a scenario file and checks it on its own (check_scenario); the text,
// or nullopt with err naming the file.
std::optional<std::string> read_scenario_file(const std::string &path, std::string *err);

// The state a handset starts with when its state directory is new and no
// scenario is given.
extern const char kDefaultScenario[];

// An IMEI as handsets keep it in NV item 550: 0x08, then the 15 digits
// BCD-packed low nibble first, behind a 0xA type nibble. nullopt unless the
// text is exactly 15 decimal digits.
std::optional<Bytes> encode_imei(const std::string &digits);

} // namespace kvn_sim
