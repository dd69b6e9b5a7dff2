"""The manual and the manual pages are true of the program: of its texts, its commands and options,
and its files. And they are well made: nothing they refer to is missing."""

import html.parser
import re
import subprocess
import unittest

import quillvane
import sources
from quillvane import BUILD, QV, SOURCE

MANUAL = SOURCE / "docs/manual"
MADE = BUILD / "docs/manual"
CHAPTERS = {file.name: file.read_text() for file in sorted(MANUAL.glob("*.adoc"))}
SHELL = re.compile(r"\[source,shell\]\n----\n(.*?)\n----", re.DOTALL)


def quoted(pattern):
    """(chapter, text) of everything that the pattern's group finds, on one line each."""
    return [(name, " ".join(text.split())) for name, chapter in CHAPTERS.items()
            for text in re.findall(pattern, chapter, re.DOTALL)]


class InterfaceTest(unittest.TestCase):
    """btn:[…] is a button, a field or a mode, [.says]`+…+` is what the program shows."""

    @classmethod
    def setUpClass(cls):
        cls.texts = sources.programTexts()

    def testTextsAreFoundInSources(self):
        source = '''say("one " // "no"\n "text", "an\\"other"); /* "no" */ x: a ? "c" : "d"'''
        self.assertEqual(["one text", 'an"other', "c", "d"], sources.textsIn(source))

    def testButtons(self):
        buttons = quoted(r"btn:\[(.*?)\]")
        self.assertGreater(len(buttons), 30)
        self.assertEqual([], [each for each in buttons if each[1] not in self.texts])

    def testMessages(self):
        messages = quoted(r"\[\.says\]`\+(.*?)\+`")
        self.assertGreater(len(messages), 20)
        lines = [" ".join(text.split()) for text in self.texts]
        self.assertEqual([], [each for each in messages
                              if not any(each[1] in line for line in lines)])

    def testTimesOfInactivity(self):
        choice = (SOURCE / "Quillvane/MinutesPicker.qml").read_text()
        *first, last = re.search(r"model: \[(.*)\]", choice)[1].split(", ")
        self.assertIn(f"{', '.join(first)} or {last} minutes", CHAPTERS["smart-folders.adoc"])


class CommandLineTest(quillvane.Case):
    def words(self, text):
        """The commands and options that a text names."""
        return (set(re.findall(r"\bqv ([a-z]+)", text)),
                set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", text)))

    def testEveryCommandAndOption(self):
        help_ = self.run_(QV, "--help").stdout
        page = self.run_("man", "-l", MADE / "qv.1").stdout
        page = re.sub(".\b", "", page)  # bold
        self.assertIn("SYNOPSIS", page)
        (commands, options), (inPage, optionsInPage) = self.words(help_), self.words(page)
        self.assertGreater(len(commands), 7)
        self.assertEqual(commands, inPage & commands)
        self.assertEqual(options, optionsInPage)
        # The commands that the page describes, and no others.
        described = set(re.findall(r"^\*qv ([a-z]+)", CHAPTERS["qv.1.adoc"], re.MULTILINE))
        self.assertEqual(commands, described)

    def testExitStatuses(self):
        told = self.run_(QV, "--help").stdout.split("exit status: ")[1]
        self.assertEqual("0 done, 1 failed, 2 wrong usage\n", told)
        page = CHAPTERS["qv.1.adoc"]
        for line in ("0:: done\n", "1:: failed;", "2:: wrong usage\n"):
            self.assertIn(line, page)

    def testCommandsAreUnderstood(self):
        # Nothing is there to be worked on, and no other program: what is misunderstood is told
        # before that.
        programs = self.directory / "programs"
        programs.mkdir()
        statuses = self.directory / "statuses"
        for name, script in (("sudo", 'exec "$@"'),
                             ("qv", f'{QV} "$@"\nstatus=$?\necho $status >>{statuses}\nexit $status')):
            (programs / name).write_text("#!/bin/bash\n" + script + "\n")
            (programs / name).chmod(0o755)
        self.environment["PATH"] = str(programs)
        lines = [line for chapter in CHAPTERS.values() for block in SHELL.findall(chapter)
                 for line in block.splitlines()]
        calls = 0
        for line in lines:
            with self.subTest(line=line):
                statuses.write_text("")
                self.assertEqual("", self.run_("/bin/bash", "-n", "-c", line).stderr)
                told = self.run_("/bin/bash", "-c", line).stderr if "qv " in line else ""
                called = statuses.read_text().split()
                self.assertEqual(len(re.findall(r"\bqv ", line)), len(called), told)
                self.assertNotIn("2", called, told)
                calls += len(called)
        self.assertGreater(calls, 10)

    def testCommandsOfTheReadme(self):
        # There are two places to look for them, and one truth.
        blocks = SHELL.findall(CHAPTERS["without-quillvane.adoc"])
        readme = (SOURCE / "README.md").read_text()
        self.assertIn("".join(f"    {line}\n" for line in blocks[0].splitlines()), readme)

    def testPlaces(self):
        """The program makes no files but those that the chapter names."""
        (self.home / "Docs").mkdir()
        for words, secrets in ((["lock", "--stdin", "Docs"], "a\n"),
                               (["open", "--stdin", "Docs.quillvane"], "a\n"),
                               (["close", "Docs.quillvane"], "")):
            result = self.run_(QV, *words, stdin=secrets, cwd=self.home)
            self.assertEqual(0, result.returncode, result)
        smart = subprocess.Popen([QV, "smart", "--stdin", "Docs.quillvane"], cwd=self.home,
                                 env=self.environment, stdin=subprocess.PIPE, text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(smart.wait)
        self.addCleanup(smart.kill)
        smart.stdin.write("a\n")
        smart.stdin.close()
        self.assertEqual(f"{self.home}/Docs\n", smart.stdout.readline())
        smart.stdout.close()
        files = self._files()
        self.assertEqual(0, self.run_(QV, "smart", "--close", "Docs.quillvane",
                                      cwd=self.home).returncode)
        self.assertEqual(0, smart.wait(30))
        named = re.findall(r"^\|`(\S+)`$", CHAPTERS["places.adoc"], re.MULTILINE)
        named = {place.replace("~", str(self.home)).replace("$XDG_RUNTIME_DIR", str(self.runtime))
                 for place in named} | {f"{self.home}/{name}" for name in (
                     "Docs", "Docs.quillvane", ".Docs.quillvane.qvkeys", ".hidden")}
        self.assertEqual(named, {place for place in named if any(
            file == place or file.startswith(place + "/") for file in files)})
        self.assertEqual([], [file for file in files if not any(
            file == place or file.startswith(place + "/") for place in named)])

    def _files(self):
        """All files, and directories that are empty, of the home and the runtime directory."""
        return [str(path) for place in (self.home, self.runtime) for path in place.rglob("*")
                if not path.is_dir() or not any(path.iterdir())]


class Page(html.parser.HTMLParser):
    """What a page refers to, and what can be referred to in it."""

    def __init__(self, text):
        super().__init__()
        self.links, self.loaded, self.names = set(), set(), set()
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name == "id":
                self.names.add(value)
            elif name == "href" and tag == "a":
                self.links.add(value)
            elif name in ("src", "href", "data", "srcset"):
                self.loaded.add(value)


class MadeDocumentsTest(quillvane.Case):
    def testPagesAreWellFormed(self):
        for name in ("quillvane.1", "qv.1"):
            self.environment |= {"MANROFFSEQ": "", "MANWIDTH": "80"}
            result = self.run_("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z",
                               MADE / name)
            self.assertEqual((0, ""), (result.returncode, result.stderr))
            packed = self.run_("gzip", "-dc", MADE / f"{name}.gz").stdout
            self.assertEqual((MADE / name).read_text(), packed)

    def testReferences(self):
        text = (MADE / "html/index.html").read_text()
        page = Page(text)
        self.assertGreater(len(page.links), 30)
        inside = {link[1:] for link in page.links if link.startswith("#")}
        self.assertEqual(set(), inside - page.names)
        files = {link for link in page.links if not link.startswith("#")} | page.loaded
        self.assertEqual([], [file for file in files if not (MADE / "html" / file).is_file()])
        # No part of the page comes from elsewhere.
        self.assertNotRegex(text, r"@import|url\(|<script|https?:")

    def testPictures(self):
        page = Page((MADE / "html/index.html").read_text())
        pictures = {f"pictures/{file.name}" for file in (MANUAL / "pictures").iterdir()}
        self.assertEqual(pictures, {file for file in page.loaded if file.startswith("pictures/")})

    def testNothingTellsWhereAndWhenItWasMade(self):
        for name in ("html/index.html", "quillvane.1", "qv.1"):
            text = (MADE / name).read_text()
            self.assertNotIn(self._directory(), text)
            self.assertNotRegex(text, r"Last updated|\d{4}-\d\d-\d\d|Date:")

    @staticmethod
    def _directory():
        """Of the sources, as the build knows it."""
        cache = (BUILD / "CMakeCache.txt").read_text()
        return re.search(r"^CMAKE_HOME_DIRECTORY:INTERNAL=(.+)$", cache, re.MULTILINE)[1]


if __name__ == "__main__":
    if not (MADE / "html/index.html").exists():
        raise SystemExit("The manual was not built: install asciidoctor, configure and build anew.")
    unittest.main()
