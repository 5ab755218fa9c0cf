#!/usr/bin/env python3
"""Whether the completions of sentrelctl for bash, zsh and fish offer what the program takes, each in its real shell.
Usage: completions_test.py ROOT PROGRAM

What the program takes is read from its help here once more, by a plain search for lines that begin with an option, so that a
fault of packaging/make-completions is seen. zsh completes on a terminal alone: it gets one, and instead of what it would show, it
writes down what it was given to choose from."""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop()
ROOT = pathlib.Path(sys.argv.pop()).resolve()
MAKE = ROOT / "packaging" / "make-completions"
BASH = ROOT / "packaging" / "sentrelctl.bash-completion"
SECONDS = 300

ZSH = r"""
zmodload zsh/zpty
zpty shell zsh -f -i
print_to() { zpty -w shell "$1" }
print_to "PS1= PS2= ; unsetopt zle_bracketed_paste; bindkey -e; fpath=($1 \$fpath); autoload -Uz compinit; compinit -u -D"
print_to 'compadd() { local -a hits; [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]] && { builtin compadd "$@"; return; }
builtin compadd -A hits "$@"; print -rl -- "offered "$^hits"." >> $OFFERED; builtin compadd "$@" }'
print_to 'zstyle ":completion:*" menu no; hide-list() { compstate[insert]= compstate[list]=; }
complete-it() { comppostfuncs=(hide-list); zle complete-word; print done >> $OFFERED; zle send-break }
zle -N complete-it; bindkey "^I" complete-it'
print_to "OFFERED=$OUT"
for words in "${(@)argv[2,-1]}"; do
  print -r -- "asked $words" >> $OUT
  zpty -w -n shell "sentrelctl $words"$'\t'
  for i in {1..1200}; do
    [[ "$(<$OUT)" == *done ]] && break
    zpty -r -t shell ignored; zselect -t 5
  done
done
zpty -d shell
"""


def help_of(words: str) -> str:
    return subprocess.run([PROGRAM, *words.split(), "--help"], check=True, capture_output=True, text=True).stdout


def options_in(text: str) -> set[str]:
    return set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", text.partition("\nOptions:\n")[2], re.MULTILINE))


def verbs_in(text: str) -> list[str]:
    part = re.split(r"^\S", text.partition("\nSubcommands:\n")[2], maxsplit=1, flags=re.MULTILINE)[0]
    return re.findall(r"^  ([a-z]+) ", part, re.MULTILINE)


def all_verbs() -> dict[str, str]:
    """The help of each verb and group by its words; the program's own stands under none."""
    helps = {"": help_of("")}
    for name in verbs_in(helps[""]):
        if name != "help":
            helps[name] = help_of(name)
            helps.update({f"{name} {below}": help_of(f"{name} {below}") for below in verbs_in(helps[name])})
    return helps


class TheCompletion(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.helps = all_verbs()
        cls.leaves = [words for words, text in cls.helps.items() if not verbs_in(text)]
        cls.groups = [words for words, text in cls.helps.items() if verbs_in(text)]
        place = tempfile.TemporaryDirectory()
        cls.addClassCleanup(place.cleanup)
        cls.made = pathlib.Path(place.name)
        subprocess.run([MAKE, PROGRAM, cls.made], check=True)

    def expected(self, words: str) -> set[str]:
        """The options behind a verb: its own, and those that stand behind every one."""
        return options_in(self.helps[words]) | {"--json", "--color"}

    def in_fish(self, lines: list[str]) -> list[set[str]]:
        asked = "\n".join(f"complete -C 'sentrelctl {line}'; echo ---" for line in lines)
        done = subprocess.run(["fish", "--no-config", "-c", f"source {self.made}/sentrelctl.fish\n{asked}"], check=True,
                              capture_output=True, text=True, timeout=SECONDS)
        return [{line.split("\t")[0] for line in part.splitlines()} for part in done.stdout.split("---\n")[:-1]]

    def in_zsh(self, lines: list[str]) -> list[set[str]]:
        out = self.made / "offered"
        out.unlink(missing_ok=True)
        done = subprocess.run(["zsh", "-f", "-c", "zmodload zsh/zselect; OUT=$0; " + ZSH, str(out), str(self.made), *lines],
                              capture_output=True, text=True, timeout=SECONDS, env={"PATH": "/usr/bin:/bin", "HOME": str(self.made)})
        text = out.read_text() if out.exists() else ""
        self.assertEqual(len(lines), text.count("asked "), done.stdout + done.stderr + text)
        return [set(re.findall(r"^offered (.*)\.$", part, re.MULTILINE)) for part in text.split("asked ")[1:]]

    def in_bash(self, lines: list[str]) -> list[set[str]]:
        asked = "\n".join(f"COMP_WORDS=('{PROGRAM}' {line or chr(39) * 2}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); COMPREPLY=(); "
                          "_sentrelctl; printf '%s\\n' \"${COMPREPLY[@]}\"; echo ---" for line in lines)
        done = subprocess.run(["bash", "-c", f"source '{BASH}'\n{asked}"], check=True, capture_output=True, text=True, timeout=SECONDS)
        return [set(part.split()) for part in done.stdout.split("---\n")[:-1]]

    def compare(self, offered: list[set[str]], wanted: dict[str, set[str]]) -> None:
        self.assertGreater(len(wanted), 5)
        self.assertEqual(len(wanted), len(offered))
        for (line, names), seen in zip(wanted.items(), offered):
            self.assertEqual(sorted(names), sorted(seen), f"behind '{line}'")

    def options_wanted(self) -> dict[str, set[str]]:
        return {f"{words} --": self.expected(words) for words in self.leaves}

    def verbs_wanted(self) -> dict[str, set[str]]:
        return {f"{words} ".lstrip(): set(verbs_in(self.helps[words])) for words in self.groups}

    def test_for_bash_has_every_option_of_every_verb(self):
        wanted = self.options_wanted()
        self.compare(self.in_bash(list(wanted)), wanted)

    def test_for_bash_has_every_verb(self):
        wanted = self.verbs_wanted()
        offered = self.in_bash([f"{line}''" for line in wanted])
        self.compare([{word for word in seen if not word.startswith("--")} for seen in offered], wanted)

    def test_for_fish_has_every_option_of_every_verb(self):
        wanted = self.options_wanted()
        self.compare(self.in_fish(list(wanted)), wanted)

    def test_for_fish_has_every_verb(self):
        wanted = self.verbs_wanted()
        self.compare(self.in_fish(list(wanted)), wanted)

    def test_for_zsh_has_every_option_of_every_verb(self):
        wanted = self.options_wanted()
        offered = self.in_zsh(list(wanted))
        self.compare([{word.rstrip("=") for word in seen} for seen in offered], wanted)

    def test_for_zsh_has_every_verb(self):
        wanted = self.verbs_wanted()
        self.compare(self.in_zsh(list(wanted)), wanted)

    def test_offers_the_choices_that_the_help_tells(self):
        lines = ["--color ", "ratings import a b --format ", "event send --action "]
        wanted = {line: set(names) for line, names in zip(lines, (("auto", "always", "never"), ("hosts", "domains", "rpz", "adblock"),
                                                                  ("allow", "warn", "block")))}
        for (line, names), option in zip(wanted.items(), ("--color", "--format", "--action")):
            words = line.partition("--")[0].removesuffix("a b ")
            told = re.search(rf"{option} \S+ +(.*)", self.helps[words.strip()])[1]
            self.assertTrue(all(name in told for name in names), told)
        for offered in (self.in_fish(lines), self.in_zsh(lines), self.in_bash([f"{line}''" for line in lines])):
            self.assertEqual(list(wanted.values()), offered)

    def test_looks_past_the_value_of_an_option_in_front_of_the_verb(self):
        for offered in (self.in_fish(["--color auto log --s"]), self.in_zsh(["--color auto log --s"])):
            self.assertEqual([{"--since"}], offered)


unittest.main()
