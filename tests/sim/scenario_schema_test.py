#!/usr/bin/env python3
"""The scenario schema against the loader: every shipped scenario and every
scenario document the tests use (raw string literals that parse as one) gets
the same verdict from the schema as from a running kvn-sim's `load`; each
shipped one also starts a handset; a few classes of bad documents are refused
by both. usage: scenario_schema_test.py KVN_SIM SOURCE_DIR"""
import glob, json, os, re, subprocess, sys, tempfile
import jsonschema

sim, src = sys.argv[1], sys.argv[2]
schema = json.load(open(os.path.join(src, "sim/scenario.schema.json")))
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
top_keys = set(schema["properties"]) - {"replay"}  # replay's loader side lives elsewhere
failures = []

def fail(msg):
    failures.append(msg)
    print("FAIL:", msg)

def run(*args):
    return subprocess.run([sim, *args, "--socket", sock], capture_output=True, text=True, timeout=60)

shipped = sorted(glob.glob(os.path.join(src, "sim/scenarios/*.json")))
default_cpp = open(os.path.join(src, "sim/default_scenario.cpp")).read()
default_doc = json.loads(re.search(r'R"json\((.*)\)json"', default_cpp, re.S).group(1))
if json.load(open(os.path.join(src, "sim/scenarios/default.json"))) != default_doc:
    fail("sim/scenarios/default.json differs from the built-in default scenario")

# Scenario documents in the tests' sources: raw strings holding a JSON object
# with only scenario keys.
docs = []
for path in glob.glob(os.path.join(src, "tests/**/*.cpp"), recursive=True):
    for m in re.finditer(r'R"(\w*)\((.*?)\)\1"', open(path).read(), re.S):
        try:
            doc = json.loads(m.group(2))
        except ValueError:
            continue
        if isinstance(doc, dict) and doc and set(doc) <= top_keys:
            docs.append((os.path.relpath(path, src), doc))

bad = [  # (class, document): refused by the loader and by the schema
    ("unknown key", {"nvv": {}}),
    ("unknown nested key", {"faults": [{"service": "extend", "msg": 2, "kind": "drop", "cnt": 1}]}),
    ("subscription 2", {"nv": {"2": {"550": "01"}}}),
    ("not hex", {"nv": {"0": {"550": "0g"}}}),
    ("odd hex digit", {"efs": {"0": {"/x": "012"}}}),
    ("relative EFS path", {"efs": {"0": {"x/y": "01"}}}),
    ("dot-dot EFS path", {"efs": {"0": {"/a/../b": "01"}}}),
    ("fault count 0", {"faults": [{"service": "extend", "msg": 2, "kind": "drop", "count": 0}]}),
    ("fault without kind", {"faults": [{"service": "extend", "msg": 2}]}),
    ("unknown fault kind", {"faults": [{"service": "uim", "msg": 47, "kind": "explode"}]}),
    ("diag fault kind", {"faults": [{"service": "diag", "msg": 75, "kind": "drop"}]}),
    ("imei of 14 digits", {"nv": {"0": {"550": {"imei": "35824005111111"}}}}),
    ("two content shapes", {"nv": {"0": {"550": {"hex": "01", "text": "a"}}}}),
    ("euicc selected without one", {"uim": {"slots": {"1": {"selected": "euicc"}}}}),
    ("slots without slot 1", {"uim": {"slots": {"2": {}}}}),
    ("card state", {"uim": {"slots": {"1": {"card": "maybe"}}}}),
    ("short EID", {"uim": {"slots": {"1": {"euicc": {"eid": "8904"}}}}}),
    ("read chunk 0", {"efs_read_chunk": 0}),
    ("read chunk 425", {"efs_read_chunk": 425}),
    ("signed result", {"modem_stats": {"debug_info_result": 2147483648}}),
    ("vs statistic id in hex", {"vs_stats": {"0": {"0x10": "01"}}}),
]

# Refusals that need more than one value at a time, which a schema cannot see:
# a path used both as a file and as a directory (in the document or against
# the handset's files), a key given twice.
beyond_schema = ("a directory on the way is a file", "is a directory", "duplicate key")

with tempfile.TemporaryDirectory(prefix="kvn-sim-schema-") as tmp:
    sock = os.path.join(tmp, "s.sock")
    for n, path in enumerate(shipped):
        errors = [e.message for e in validator.iter_errors(json.load(open(path)))]
        if errors:
            fail(f"{path}: {errors[0]}")
        started = run("start", "--state", os.path.join(tmp, f"state{n}"), "--scenario", path)
        if started.returncode != 0:
            fail(f"{path} does not start: {started.stderr}")
        run("stop")
    if run("start", "--state", os.path.join(tmp, "state")).returncode != 0:
        sys.exit("kvn-sim does not start")
    try:
        cases = [(f"{p}", d, None) for p, d in docs] + [(f"bad: {c}", d, False) for c, d in bad]
        for where, doc, expected in cases:
            with open(os.path.join(tmp, "doc.json"), "w") as f:
                json.dump(doc, f)
            loads = run("load", os.path.join(tmp, "doc.json"))
            valid = validator.is_valid(doc)
            if expected is not None and loads.returncode == 0:
                fail(f"{where}: the loader accepts it")
            if valid and loads.returncode != 0 and any(w in loads.stderr for w in beyond_schema):
                continue
            if valid != (loads.returncode == 0):
                fail(f"{where}: schema says {'valid' if valid else 'invalid'}, loader {loads.stderr.strip() or 'loads it'}: {json.dumps(doc)[:200]}")
    finally:
        run("stop")

print(f"{len(shipped)} shipped scenarios, {len(docs)} test documents, {len(bad)} bad documents checked")
sys.exit(1 if failures else 0)
