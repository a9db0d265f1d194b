#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Types lines with tabs into a real shell and sees which words come of them: completion_test.py PROGRAM SHELL"""
import os
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

program, name = sys.argv[1:]
if shutil.which(name) is None:
    print(f"skipped: there is no {name} here (script/bootstrap shells installs it)")
    sys.exit(1 if os.environ.get("CI") == "true" else 77)
folder = tempfile.TemporaryDirectory()
environment = dict(os.environ, XDG_DATA_HOME=folder.name, HOME=folder.name, TERM="dumb", LC_ALL="C.UTF-8",
                   PATH=f"{os.path.dirname(program)}:{os.environ['PATH']}")
environment.pop("KELMTROVA_TOKEN", None)

LABELS = ["left thumb", "left ring", "it's $HOME", 'say "x"', r"back\slash", "a:b=c@d", "münze", "!bang;x", "folder",
          "q`\"$!'\\z", "tab\there"]
os.mkdir(os.path.join(folder.name, "folder"))  # a label is no file
open(os.path.join(folder.name, "scan.raw"), "w").close()

# What is typed up to the tab, and the last of the words that come of it.
CASES = [
    ("token verify --label left\\ t", "left thumb"), ("token verify --label 'left t", "left thumb"),
    ('token verify --label "left r', "left ring"), ("token verify --label it", "it's $HOME"),
    ("token verify --label \"it's", "it's $HOME"), ("token verify --label say", 'say "x"'),
    ("token delete --label 'say \"", 'say "x"'), ("token verify --label back", r"back\slash"),
    ("token verify --label a:b", "a:b=c@d"), ("token verify --label a", "a:b=c@d"),
    ("token verify --label m", "münze"), ("token verify --label \\!", "!bang;x"),
    ("token verify --label fol", "folder"), ("token verify --label q", "q`\"$!'\\z"),
    ("token verify --label 'q", "q`\"$!'\\z"), ('token verify --label "q', "q`\"$!'\\z"),
    ("token verify --token sim:none --label mü", "mü"),
    ("token verify --token sim:none --label ", "--label"), ("token verify --label ta", "ta"),
    (f"token info --token sim:{folder.name}/kelmtrova/t", f"sim:{folder.name}/kelmtrova/token.db"),
    ("tok", "token"), ("token selft", "selftest"), ("token enroll --token slots --fin", "--finger"),
    ("token pin require of", "off"), ("token send-image sc", "scan.raw"),
]

SHELLS = {
    "bash": (["bash", "--norc", "--noprofile", "-i"], r"""source <(kelmtrova completion bash)
        show() { printf '<<%s>>\n' "${!#}"; }; complete -o default -F _kelmtrova show; PS1='rea''dy> '"""),
    "zsh": (["zsh", "-f", "-i"], r"""autoload -U compinit; compinit -D -u; source <(kelmtrova completion zsh)
        compdef _kelmtrova show; show() { print -r -- "<<${@[-1]}>>" }; PS1='rea''dy> '"""),
    "fish": (["fish", "--no-config", "-i"], r"""kelmtrova completion fish | source; complete -c show -w kelmtrova
        function show; printf '<<%s>>\n' $argv[-1]; end; function fish_prompt; echo -n rea''dy'> '; end"""),
}


class Shell:
    def __init__(self, words, setup):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder.name)
            os.execvpe(words[0], words, environment)
        self.type(setup + "\n")
        self.until("ready> ")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def until(self, end, seconds=20):
        seen, limit = "", time.monotonic() + seconds
        while not re.search(end, seen):
            if not select.select([self.terminal], [], [], max(0, limit - time.monotonic()))[0]:
                raise AssertionError(f"waited in vain for {end}: {seen}")
            seen += os.read(self.terminal, 65536).decode(errors="replace")
        return seen

    def complete(self, line):
        self.type(line + "\t\n")
        return re.search(r"<<(.*?)>>", self.until(r"<<.*>>(.|\n)*ready> ")).group(1)


def run(*words):
    subprocess.run([program, "token", *words], env=environment, check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL)


run("create", "--slots", "20")
for label in LABELS:
    run("enroll", "--finger", label, "--label", label)
shell, failures = Shell(*SHELLS[name]), 0
for typed, wanted in CASES:
    got = shell.complete("show " + typed)
    if got != wanted:
        failures += 1
        print(f"{typed!r} became {got!r}, not {wanted!r}")
sys.exit(failures != 0)
