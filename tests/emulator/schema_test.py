#!/usr/bin/python3
"""The JSON Schemas against the program: what it takes and refuses, and each line that it writes.
usage: schema_test.py EXTENDER REPOSITORY"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile

import jsonschema

EXTENDER, ROOT = sys.argv[1], pathlib.Path(sys.argv[2])
SCHEMAS = {}
for path in (ROOT / "emulator/schema").glob("*.schema.json"):
    SCHEMAS[path.name] = json.loads(path.read_text())
    jsonschema.Draft202012Validator.check_schema(SCHEMAS[path.name])


def validator(name):
    resolver = jsonschema.RefResolver("", SCHEMAS[name], store=SCHEMAS)
    return jsonschema.Draft202012Validator(SCHEMAS[name], resolver=resolver)


def properties(schema):
    """Every name that a schema gives a meaning to."""
    if isinstance(schema, list):
        return set().union(*map(properties, schema)) if schema else set()
    if not isinstance(schema, dict):
        return set()
    return set(schema.get("properties", {})).union(*map(properties, schema.values()))


# Kind, document, whether it is taken.
DOCUMENTS = [
    ("scenario", {"$schema": "x", "description": "d", "link": 1, "kmpd": "silent", "rules": []}, True),
    ("scenario", {"rules": [{"on": 66, "do": {"pending": -1, "then": ["ask_hello", {"type": 1, "body": ""}]}}]}, True),
    ("scenario", {"image": {"rules": [{"nth": 1, "do": {"length": None, "trickle": {"bytes": 1, "ms": 0}}}]}}, True),
    ("scenario", {"lnk": 1}, False),
    ("scenario", {"link": "up"}, False),
    ("scenario", {"kmpd": "asleep"}, False),
    ("scenario", {"rules": [{"on": "acept", "do": {}}]}, False),
    ("scenario", {"rules": [{"on": 67, "do": {}}]}, False),
    ("scenario", {"rules": [{"on": "accept"}]}, False),
    ("scenario", {"rules": [{"on": "accept", "nth": 0, "do": {}}]}, False),
    ("scenario", {"rules": [{"on": 66, "do": {"magic": "B2A"}}]}, False),
    ("scenario", {"rules": [{"on": 66, "do": {"then": [{"link": 1, "logic": 1}]}}]}, False),
    ("scenario", {"image": {"tsl": True}}, False),
    ("scenario", {"image": {"rules": [{"do": {"trickle": {"bytes": 1}}}]}}, False),
    ("cloud", {"$schema": "x", "accounts": [{"name": "a", "password": "b", "role": 0}], "methods": {"m": {}}}, True),
    ("cloud", {"firmware": [{"fwVer": "1.0.9", "fwUrl": 5}], "device": {"users": ["a"]}}, True),
    ("cloud", {"accounts": [{"name": "a"}]}, False),
    ("cloud", {"device": {"users": [1]}}, False),
    ("cloud", {"token": {"expiresIn": "1"}}, False),
    ("cloud", {"firmware": [{"fwUrl": "x"}]}, False),
]
# A run in which every kind of record occurs that a command can bring about.
RULES = [{"on": "accept", "nth": 1, "do": {"full": True}}, {"on": "logic", "nth": 1, "do": {"silence": True}},
         {"on": "submit", "do": {"garbage_hex": "00ff"}}]
LIFE = """cloud_msg online; cloud_msg kickoff; cloud_msg check; dropbreload 'a b'
printf 'one\\n\\n\\377\\n' >/dev/console; cloud_msg download; extender inject link down"""

failed = 0


def expect(good, what):
    global failed
    failed += not good
    if not good:
        print("FAILED:", what)


with tempfile.TemporaryDirectory() as folder:
    document, journal = folder + "/document.json", folder + "/journal"
    for kind, content, taken in DOCUMENTS:
        pathlib.Path(document).write_text(json.dumps(content))
        run = subprocess.run([EXTENDER, "run", "--" + kind, document, "--", "true"], capture_output=True, text=True)
        expect((run.returncode == 0) == taken, f"extender: {kind} {content} {run.stderr}")
        expect(validator(kind + ".schema.json").is_valid(content) == taken, f"schema: {kind} {content}")
    pathlib.Path(document).write_text(json.dumps({"rules": RULES}))
    subprocess.run([EXTENDER, "run", "--scenario", document, "--journal", journal, "--", "sh", "-c", LIFE],
                   capture_output=True, check=False)
    known = SCHEMAS["journal.schema.json"]
    seen = set()
    for line in pathlib.Path(journal).read_text().splitlines():
        record = json.loads(line)
        seen.add(record["kind"])
        faults = [error.message for error in validator("journal.schema.json").iter_errors(record)]
        expect(not faults, f"{line}: {faults}")
        named = set(known["properties"]) | set(known["$defs"].get(record["kind"], {}).get("properties", {}))
        expect(set(record) <= named, f"not described: {set(record) - named} of {line}")
    rare = {"bad_message", "event", "restart", "scenario_error", "tap", "lost", "difference"}
    absent = set(known["$defs"]) - seen - rare
    expect(not absent, f"the run has no {absent}")

# What the readers know by name, and nothing else.
members = set()
for source in [*(ROOT / "emulator/neighbours").glob("*.cpp"), *(ROOT / "emulator/world").glob("*.cpp")]:
    if source.name != "fault.cpp":
        members |= set(re.findall(r'Member\{"([^"]+)"', source.read_text()))
documents = set().union(*(properties(SCHEMAS[name + ".schema.json"]) for name in ("scenario", "image", "cloud")))
expect(members == documents, f"known to one of program and schema only: {members ^ documents}")
sys.exit(failed != 0)
