// default_scenario.cpp - the state of a plausible handset, applied when a
// state directory is new and no scenario is given: two subscriptions with
// IMEIs in NV 550, a few common NV items and modem EFS files.
#include "scenario.h"

namespace kvn_sim {

const char kDefaultScenario[] = R"json({
  "description": "default handset: dual-SIM, LTE/NR capable",
  "nv": {
    "0": {
      "550": {"imei": "358240051111110"},
      "10": "04",
      "441": "ffff",
      "946": "00000000",
      "1877": "0000000000000000"
    },
    "1": {
      "550": {"imei": "358240051111128"},
      "10": "04"
    }
  },
  "efs": {
    "0": {
      "/nv/item_files/modem/mmode/sms_domain_pref": "01",
      "/nv/item_files/modem/mmode/lte_bandpref": "df38000000000000",
      "/nv/item_files/modem/mmode/voice_domain_pref": "03",
      "/nv/item_files/ims/IMS_enable": "01",
      "/nv/item_files/modem/nas/ssr_count": "00000000",
      "/policyman/carrier_policy.xml": {"text": "<?xml version=\"1.0\"?>\n<policy name=\"generic\" changelist=\"1\">\n  <initial>\n    <rat_capability base=\"full\" />\n  </initial>\n</policy>\n"}
    },
    "1": {
      "/nv/item_files/modem/mmode/sms_domain_pref": "01"
    }
  }
})json";

} // namespace kvn_sim
