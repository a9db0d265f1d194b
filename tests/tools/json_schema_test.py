#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the JSON of every command against docs/json.schema.json, and runs what README.md and docs/ tell people to type:
json_schema_test.py PROGRAM SOURCE_FOLDER"""
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile


def lacking(what):
    print(f"skipped: there is no {what} here")
    sys.exit(1 if os.environ.get("CI") == "true" else 77)  # the house's own runs are never without it


try:
    import jsonschema
except ImportError:
    lacking("python3-jsonschema")
if shutil.which("jq") is None:
    lacking("jq")

program, source = sys.argv[1], pathlib.Path(sys.argv[2])
schema = json.loads((source / "docs/json.schema.json").read_text())
temporary = tempfile.TemporaryDirectory()
folder = pathlib.Path(temporary.name)
environment = dict(os.environ, XDG_DATA_HOME=str(folder), KELMTROVA_TOKEN="sim:", name="anna",
                   PATH=f"{os.path.dirname(program)}:{os.environ['PATH']}")
settings = dict(cwd=folder, env=environment, text=True, stdin=subprocess.DEVNULL)
seen = set()


def undocumented(value, described):
    """The keys in `value`, at any depth, that the schema does not name: what is not described is not promised."""
    if "$ref" in described:
        described = schema["$defs"][described["$ref"].rsplit("/", 1)[1]]
    if "anyOf" in described:
        described = described["anyOf"][0]
    if isinstance(value, list):
        return [key for one in value for key in undocumented(one, described["items"])]
    if not isinstance(value, dict) or "properties" not in described:
        return []
    known = described["properties"]
    return [key for key in value if key not in known] + [
        inner for key, one in value.items() if key in known for inner in undocumented(one, known[key])]


def hold(answer, definition, what):
    described = {**schema["$defs"][definition], "$defs": schema["$defs"]}
    errors = [error.message for error in jsonschema.Draft7Validator(described).iter_errors(answer)]
    errors += [f"{key} is not described" for key in undocumented(answer, described)]
    assert not errors, (what, definition, errors, answer)


def run(words, definition, exit_code=0):
    seen.update(words.split()[:2])
    done = subprocess.run([program, *words.split(), "--json"], capture_output=True, **settings)
    assert done.returncode == exit_code, (words, done)
    hold(json.loads(done.stdout), definition, words)


def lines_of(words, definition, count, meanwhile):
    """Those of a command that goes on until a signal ends it; `meanwhile` is done before it says the first."""
    with subprocess.Popen([program, *words.split(), "--json"], stdout=subprocess.PIPE, **settings) as going:
        try:
            meanwhile()
            lines = [going.stdout.readline() for _ in range(count)]
        finally:
            going.send_signal(signal.SIGTERM)
        for line in lines + list(going.stdout):
            hold(json.loads(line), definition, words)
        assert going.wait() == 0, words


for name, text in {"old": "1234", "new": "2580", "p.pgm": "P2 2 2 255 1 2 3 4"}.items():
    (folder / name).write_text(text)
for words, definition, exit_code in [
        ("list", "failure", 4), ("slots", "failure", 4), ("create --slots 3", "token-create", 0),
        ("create", "failure", 2), ("list", "token-list", 0), ("info", "token-info", 0),
        ("selftest", "token-selftest", 0), ("enroll --finger a --label x --tag 3", "token-enroll", 0),
        ("enroll --finger a", "failure", 3), ("slots", "token-slots", 0), ("bogus", "failure", 2),
        ("doctor", "token-doctor", 0), ("verify --slot 1 --finger b", "token-match", 1),
        ("verify --label x --finger a", "token-match", 0), ("identify --finger a", "token-match", 0),
        ("identify --finger b --test", "token-match", 1), ("identify", "failure", 3), ("touch a", "token-touch", 0),
        ("identify", "token-match", 0), ("lift", "token-lift", 0), ("repair", "token-repair", 0),
        ("params --gain 3", "token-params", 0), ("params --gain 300", "failure", 2), ("cache on", "token-cache", 0),
        ("send-image p.pgm", "token-send-image", 0), ("pin require on", "token-pin-require", 0),
        ("delete --slot 1", "failure", 3), ("pin verify --pin-file old", "token-pin-verify", 0),
        ("pin change --pin-file old --new-pin-file new", "token-pin-change", 0),
        ("pin verify --pin-file old", "failure", 3), ("delete --label x --pin-file new", "token-delete", 0),
        ("delete --all --yes", "token-delete", 0), ("unblock", "token-unblock", 0),
        ("export backup", "token-file", 0), ("import backup --token copy.db", "token-file", 0),
        ("import p.pgm --token other.db", "failure", 2), ("serve --vpcd 127.0.0.1:1", "failure", 2),
        ("pin change --pin-file new --new-pin-file old", "token-pin-change", 0),
        ("pin require off", "token-pin-require", 0)]:
    run("token " + words, definition, exit_code)


with socket.create_server(("127.0.0.1", 0)) as reader:
    connections = []
    lines_of(f"token serve --vpcd 127.0.0.1:{reader.getsockname()[1]}", "token-serve", 1,
             lambda: connections.append(reader.accept()))

# Pictures.
subprocess.run([program, "image", "synth", "--class", "whorl", "-o", "whorl.pgm", "--truth", "truth"],
               check=True, **settings)
run("image analyze whorl.pgm", "image-analyze")
run("image analyze whorl.pgm --timings --maps maps", "image-analyze")
run("image analyze missing.pgm", "failure", 2)
for line in subprocess.run([program, "image", "quality", "whorl.pgm", "p.pgm"], capture_output=True,
                           **settings).stdout.splitlines():
    hold(json.loads(line), "image-quality", "image quality")
hold(json.loads((folder / "maps/maps.json").read_text()), "image-maps", "maps.json")
hold(json.loads((folder / "truth").read_text()), "image-truth", "the truth of a print")



# What people are told to type, each block as it stands, with another finger on the sensor.
def typed(block, *parts):
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", block], capture_output=True, **settings)
    assert done.returncode == 0 and all(part in done.stdout for part in parts), (block, done)


def touch(finger):
    typed(f"kelmtrova token touch {finger}")


EXPECTED = {
    "token list": ["sim:", "match: slot 1 (right thumb)"],
    "--quiet && echo": ["it is anna\nright thumb\nanna\n"],
    "token doctor": ["matching: not blocked", "match: slot 1 (right thumb)"],
    "image synth": [],
}
(folder / "pin.txt").write_text("1234\n")
blocks = [block for block in re.findall(r"(?:^    .*\n)+", (source / "README.md").read_text(), re.M)
          if block.startswith("    kelmtrova ") and "..." not in block.replace(", ...", "")]
assert len(blocks) == len(EXPECTED), blocks
for block, (mark, parts), finger in zip(blocks, EXPECTED.items(), ["thumb", "anna", "thumb", "thumb"]):
    assert mark in block, (mark, block)
    touch(finger)
    typed(block, *parts)
hold(json.loads((folder / "enrolled.json").read_text()), "token-enroll", "enrolled.json")
lines_of("token identify --watch", "token-match", 1, lambda: touch("anna"))
typed("kelmtrova image quality whorl.png none.png -o quality.jsonl 2>&1")
jq = [line.strip() for page in (source / "docs").glob("*.md") for line in page.read_text().splitlines()
      if line.startswith("    ") and "jq -" in line]
helped = subprocess.run([program, "token", "slots", "--help"], capture_output=True, **settings).stdout
jq += [line.strip() for line in helped.splitlines() if "jq -" in line]
assert len(jq) == 2, jq
for line in jq:
    typed(line, "anna\n" if "slots" in line else "none.png\tNo such file")

# None was forgotten.
listing = subprocess.run([program, "token", "--help"], text=True, capture_output=True, check=True).stdout
commands = set(re.findall(r"^  ([a-z][a-z-]*) ", listing[listing.index("Subcommands:"):], re.M))
assert len(commands) > 15 and commands <= seen, commands - seen
