// scenario.h - the scenario document: a JSON object that sets a simulated
// handset's state (properties, NV items, EFS files, canned extend replies,
// faults, EFS read chunk size). A document is checked whole before anything
// is applied, so a bad one changes nothing; an unknown key at any level is an
// error that names it. Keys are rows of tables in scenario.cpp.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "handset.h"
#include "util.h"

namespace kvn_sim {

// Checks `doc` and, when it is good, merges it into the handset. False with
// err set (naming the offending key or value) otherwise.
bool apply_scenario(Handset &h, const nlohmann::json &doc, std::string *err);

// Reads a scenario file and applies it; err names the file on failure.
bool apply_scenario_file(Handset &h, const std::string &path, std::string *err);

// The state a handset starts with when its state directory is new and no
// scenario is given.
extern const char kDefaultScenario[];

// An IMEI as handsets keep it in NV item 550: 0x08, then the 15 digits
// BCD-packed low nibble first, behind a 0xA type nibble. nullopt unless the
// text is exactly 15 decimal digits.
std::optional<Bytes> encode_imei(const std::string &digits);

} // namespace kvn_sim
