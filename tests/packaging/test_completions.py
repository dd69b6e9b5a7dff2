"""What bash, fish and zsh offer for the words of qv."""

import os
import pty
import re
import select
import subprocess
import time
import unittest

from quillvane import QV, SOURCE, Case

COMPLETIONS = SOURCE / "packaging/completions"
COMMANDS = ["change", "close", "finish", "help", "lock", "open", "remove", "smart", "undo"]
FOLDERS = ["Docs", "Other folder"]
ITEMS = ["A.quillvane", "B b.QUILLVANE"]
KEY, STDIN = "--recovery-key", "--stdin"
OPTIONS = {"lock": [STDIN], "open": [KEY, STDIN], "close": [], "remove": [KEY, STDIN],
           "change": [KEY, STDIN], "smart": ["--close", "--minutes", KEY, STDIN],
           "finish": [KEY, STDIN], "undo": [KEY, STDIN]}
MINUTES = ["1", "15", "2", "30", "5"]

BASH = """
. /usr/share/bash-completion/bash_completion
. "$1"
COMP_LINE=$2 COMP_POINT=${#2} COMP_TYPE=9 COMP_KEY=9
IFS=' ' read -ra COMP_WORDS <<<"$(sed 's/[=:]/ & /g' <<<"$2")"
[[ $2 != *' ' ]] || COMP_WORDS+=("")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_qv qv "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
((!${#COMPREPLY[@]})) || printf '%s\\n' "${COMPREPLY[@]}"
"""


class ShellCase(Case):
    def setUp(self):
        super().setUp()
        for folder in FOLDERS:
            (self.work / folder).mkdir()
        for file in (*ITEMS, "notes.txt", "quillvane"):
            (self.work / file).touch()


class Shells:
    """The same for each shell: `offered` is what it shows for a line that is typed, sorted."""

    def testCommands(self):
        self.assertEqual(COMMANDS, self.offered("qv "))
        self.assertEqual(["change", "close"], self.offered("qv c"))

    def testOptionsOfEachCommand(self):
        for command, options in OPTIONS.items():
            offered = [word for word in self.offered(f"qv {command} --") if word != "--help"]
            self.assertEqual(options, offered, command)
        self.assertEqual(["--help", "--version"], self.offered("qv --"))
        self.assertEqual(MINUTES, self.offered("qv smart --minutes "))

    def testFoldersToProtect(self):
        self.assertEqual(FOLDERS, self.offered("qv lock "))
        self.assertEqual(FOLDERS, self.offered("qv lock --stdin "))

    def testItemsAndTheFoldersOnTheWay(self):
        for command in ("open", "close", "remove", "change", "smart", "finish", "undo"):
            self.assertEqual(sorted(FOLDERS + ITEMS), self.offered(f"qv {command} "), command)
        self.assertEqual(sorted(FOLDERS + ITEMS), self.offered("qv open --recovery-key "))
        self.assertEqual(sorted(FOLDERS + ITEMS), self.offered("qv smart --minutes 5 "))

    def testNamesThatBeginWithAHyphen(self):
        (self.work / "-folder").mkdir()
        (self.work / "-item.quillvane").touch()
        self.assertEqual(["-item.quillvane"], self.offered("qv open -- -i"))
        self.assertEqual(["A.quillvane"], self.offered("qv open A"))
        self.assertEqual(["-folder"], self.offered("qv lock -- -f"))
        self.assertEqual(sorted(["-folder", *FOLDERS]), self.offered("qv lock -- "))
        self.assertEqual(sorted(["-folder", "-item.quillvane"] + FOLDERS + ITEMS),
                         self.offered("qv open -- "))


class BashTest(Shells, ShellCase):
    def offered(self, line):
        result = self.run_("bash", "--norc", "-c", BASH, "bash", COMPLETIONS / "qv.bash", line)
        self.assertEqual((0, ""), (result.returncode, result.stderr), line)
        return sorted(result.stdout.splitlines())

    def testOneOperandIsEnough(self):
        self.assertEqual([], self.offered("qv open A.quillvane "))
        self.assertEqual([], self.offered("qv lock 2024 "))
        self.assertEqual(sorted(FOLDERS + ITEMS), self.offered("qv smart --minutes=5 "))
        self.assertEqual(sorted(FOLDERS + ITEMS), self.offered("qv open -- "))

    def testNamesWithColons(self):
        (self.work / "at10:30.quillvane").touch()
        # What is before the colon is a word of its own to the shell, and stays.
        self.assertEqual(["30.quillvane"], self.offered("qv open at10:3"))

    def testMinutesAfterAnEqualsSign(self):
        self.assertEqual(["30"], self.offered("qv smart --minutes=3"))


class FishTest(Shells, ShellCase):
    def offered(self, line):
        result = self.run_("fish", "--no-config", "-c", "source $argv[1]; complete -C $argv[2]",
                           COMPLETIONS / "qv.fish", line)
        self.assertEqual((0, ""), (result.returncode, result.stderr), line)
        return sorted(word.split("\t")[0].removesuffix("/") for word in result.stdout.splitlines())

    def testPlacesAndQuotes(self):
        self.environment["HOME"] = str(self.work)
        self.assertEqual(["~/A.quillvane"], self.offered("qv open ~/A"))
        self.assertEqual(["B b.QUILLVANE"], self.offered("qv open 'B b"))


class ZshTest(Shells, ShellCase):
    """In a terminal, where zsh alone completes: Ctrl-D lists what there is."""

    def setUp(self):
        super().setUp()
        process, self.terminal = pty.fork()
        if process == 0:
            os.chdir(self.work)
            os.execvpe("zsh", ["zsh", "-f", "-i"], self.environment | {"TERM": "dumb"})
        self.addCleanup(os.waitpid, process, 0)
        self.addCleanup(os.close, self.terminal)
        self._shown = ""
        self._type(f"fpath=({COMPLETIONS} $fpath); autoload -Uz compinit; compinit -u -D\n"
                   "LISTMAX=1000 COLUMNS=40 PS1='READY''> '; unsetopt prompt_cr prompt_sp; "
                   "unset zle_bracketed_paste\n")
        self._read("READY> ")

    def _type(self, text):
        os.write(self.terminal, text.encode())

    def _read(self, end):
        """What is shown before this text."""
        limit = time.monotonic() + 20
        while end not in self._shown:
            left = max(0, limit - time.monotonic())
            self.assertTrue(select.select([self.terminal], [], [], left)[0], self._shown)
            self._shown += os.read(self.terminal, 65536).decode()
        before, _, self._shown = self._shown.partition(end)
        return before

    def offered(self, line):
        self._type(line + "\x04\x15print -r -- DO''NE\n")
        shown = self._read("DONE").replace("\r", "")
        self._read("READY> ")
        listed = shown.partition("READY> ")[0].split("\n")[1:]
        words = []
        for text in listed:
            # A description follows two dashes; what has none comes in columns.
            words += [text.split("  -- ")[0]] if "  -- " in text else re.split(r"\s{2,}", text)
        return sorted(word.strip().removesuffix("/").replace("\\ ", " ")
                      for word in words if word.strip())


class HelpTest(Case):
    def testEveryCommandAndOptionIsKnown(self):
        text = subprocess.run([QV, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout
        self.assertEqual(set(COMMANDS), set(re.findall(r"^  qv (\w+)", text, re.MULTILINE)) | {"help"})
        self.assertEqual({option for options in OPTIONS.values() for option in options}
                         | {"--help", "--version"}, set(re.findall(r"--[a-z-]+[a-z]", text)))


if __name__ == "__main__":
    unittest.main()
