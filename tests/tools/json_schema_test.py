#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds what every token command prints with --json against docs/json.schema.json: json_schema_test.py PROGRAM SCHEMA"""
import json
import os
import re
import subprocess
import sys
import tempfile

try:
    import jsonschema
except ImportError:
    print("skipped: there is no python3-jsonschema here")
    sys.exit(1 if os.environ.get("CI") == "true" else 77)  # the house's own runs are never without it

program, schema = sys.argv[1], json.load(open(sys.argv[2]))
validator = jsonschema.Draft7Validator(schema)
folder = tempfile.TemporaryDirectory()
environment = dict(os.environ, XDG_DATA_HOME=folder.name, KELMTROVA_TOKEN="sim:")
seen = set()


def run(words, exit_code):
    seen.update(words.split()[:2])
    done = subprocess.run([program, "token", *words.split(), "--json"], cwd=folder.name, env=environment, text=True,
                          capture_output=True, stdin=subprocess.DEVNULL)
    assert done.returncode == exit_code, (words, done)
    answer = json.loads(done.stdout)
    for error in validator.iter_errors(answer):
        raise AssertionError(f"{words}: {error.message}\n{done.stdout}")
    # What is not described is not promised.
    unknown = set(answer) - set(schema["properties"]) - {
        "passed", "verifyMode", "timeOut", "securityLevel", "gain", "securityState", "securityStateText", "on",
        "holdsFinger", "width", "height", "blocks", "verified", "required", "changed", "unblocked", "file", "finger",
        "readOnly"}
    assert not unknown, (words, unknown)
    assert answer["ok"] == (exit_code in (0, 1)) or "healthy" in answer, words
    return answer


for name, text in {"old": "1234", "new": "2580", "p.pgm": "P2 2 2 255 1 2 3 4"}.items():
    with open(os.path.join(folder.name, name), "w") as file:
        file.write(text)
for words, exit_code in [
        ("list", 4), ("slots", 4), ("create --slots 3", 0), ("create", 2), ("list", 0), ("info", 0), ("selftest", 0),
        ("enroll --finger a --label x --tag 3", 0), ("enroll --finger a", 3), ("slots", 0), ("bogus", 2), ("doctor", 0),
        ("verify --slot 1 --finger b", 1), ("verify --label x --finger a", 0), ("identify --finger a", 0),
        ("identify --finger b --test", 1), ("identify", 3), ("touch a", 0), ("identify", 0), ("lift", 0),
        ("repair", 0), ("params --gain 3", 0), ("params --gain 300", 2), ("cache on", 0), ("send-image p.pgm", 0),
        ("pin require on", 0), ("delete --slot 1", 3), ("pin verify --pin-file old", 0),
        ("pin change --pin-file old --new-pin-file new", 0), ("pin verify --pin-file old", 3),
        ("delete --label x --pin-file new", 0), ("delete --all --yes", 0), ("unblock", 0), ("export backup", 0),
        ("import backup --token copy.db", 0), ("import p.pgm --token other.db", 2), ("serve --vpcd 127.0.0.1:1", 2)]:
    run(words, exit_code)

# None was forgotten.
listing = subprocess.run([program, "token", "--help"], text=True, capture_output=True, check=True).stdout
commands = set(re.findall(r"^  ([a-z][a-z-]*) ", listing[listing.index("Subcommands:"):], re.M))
assert len(commands) > 15 and commands <= seen, commands - seen
