"""The installed tree: what is in it, and what its readers say of it.

Usage: install_test.py CMAKE BUILD_DIRECTORY PREFIX
"""

import fnmatch
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

CMAKE, BUILD, PREFIX = sys.argv[1:4]
del sys.argv[1:4]

SYSTEM_PROGRAMS = ("blade", "emp", "evarchiver", "evbridge", "evgate", "evweb", "msm")
COMPLETED = ("blade", "evarchiver", "evbridge", "evctl", "evfleet", "evgate", "evweb", "msm")
EXPECTED = [
    "bin/evctl", "bin/evfleet", "libexec/event-manager/evctl-pg", *[f"sbin/{program}" for program in SYSTEM_PROGRAMS],
    *[f"share/bash-completion/completions/{program}" for program in COMPLETED],
    *[f"share/zsh/site-functions/_{program}" for program in COMPLETED],
    *[f"share/fish/vendor_completions.d/{program}.fish" for program in COMPLETED],
    "etc/default/blade", "etc/default/evarchiver", "etc/default/evbridge", "etc/default/evgate", "etc/default/evweb", "etc/event-manager/blade.conf", "etc/logrotate.d/event-manager",
    "lib/systemd/system/blade@.service", "lib/systemd/system/evarchiver.service", "lib/systemd/system/evgate.service",
    "lib/systemd/system/evbridge.service", "lib/systemd/system/evweb.service",
    *[f"lib/{kind}.d/{name}.conf" for kind in ("sysusers", "tmpfiles") for name in ("blade", "evarchiver", "evbridge")],
    "share/doc/event-manager/README.md", "share/doc/event-manager/docs/operations.md",
    "share/doc/event-manager/docs/formats.md", "share/doc/libmpu-dev/examples/log_event.c",
    "share/event-manager/kaitai/kelta_eventlog.ksy", "share/event-manager/wireshark/blade.lua",
    "share/event-manager/wireshark/blade_record.py", "share/event-manager/sql/fleet/001_schema.sql",
    "share/event-manager/mibs/EVENT-MANAGER-MIB.txt", "share/event-manager/catalog.schema.json",
    "share/event-manager/catalog.d/eventlog.json", "share/event-manager/catalog.d/startup.json",
    "include/mpu/mpu/event.h", "include/mpu/mpu_gbl.h",
]
SOURCE = pathlib.Path(__file__).resolve().parents[3]
PAGES = SOURCE / "docs" / "man"


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, **options)


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="install")
        cls.addClassCleanup(directory.cleanup)
        cls.root = pathlib.Path(directory.name)
        done = run(CMAKE, "--install", BUILD, env={**os.environ, "DESTDIR": directory.name})
        assert done.returncode == 0, done.stderr
        cls.tree = cls.root / PREFIX.lstrip("/")
        cls.units = sorted(cls.tree.glob("lib/systemd/system/*"))

    def assert_silent(self, done):
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_everything_is_in_its_place(self):
        self.assertEqual([name for name in EXPECTED if not (self.tree / name).is_file()], [])
        pages = {page.name for page in self.tree.glob("share/man/man[1-8]/*")}
        self.assertEqual(pages, {page.name for page in PAGES.iterdir()})
        for page in self.tree.glob("share/man/man[1-8]/*"):
            self.assertEqual(page.parent.name[3:], page.suffix[1:])

    def test_readme_leads_to_what_is_installed_and_pages_have_their_pictures(self):
        folder = self.tree / "share/doc/event-manager"
        places = re.findall(r"\]\(([^)#:]+)[)#]", (folder / "README.md").read_text())
        for page in folder.glob("docs/*.md"):
            places += [f"docs/{picture}" for picture in re.findall(r"!\[[^]]*\]\(([^):]+)\)", page.read_text())]
        self.assertIn("docs/tour/ring.svg", places)
        self.assertEqual([place for place in places if not (folder / place).is_file()], [])

    def test_packages_want_each_other_of_one_version(self):
        control = (SOURCE / "debian/control").read_text()
        own = set(re.findall(r"^Package: (\S+)$", control, re.M))
        wanted = []
        for field in re.findall(r"^(?:Depends|Recommends): (.*(?:\n .*)*)", control, re.M):
            wanted += [entry.split(maxsplit=1) for entry in field.split(",")]
        versions = [version for name, *version in wanted if name in own]
        self.assertGreater(len(versions), 5)
        for version in versions:
            self.assertRegex("".join(version), r"^\(= \$\{(source|binary):Version\}\)$")

    # --- Services

    def test_units_are_well_formed(self):
        self.assertEqual(len(self.units), 5)
        # The system's own targets, which these units are ordered by.
        system = self.root / "lib/systemd/system"
        system.mkdir(parents=True)
        for kind in ("target", "slice", "mount"):
            for unit in pathlib.Path("/lib/systemd/system").glob(f"*.{kind}"):
                shutil.copy(unit, system)
        self.assert_silent(run("systemd-analyze", "verify", f"--root={self.root}", "--man=no", *self.units))

    def test_units_expose_little(self):
        for unit in self.units:
            done = run("systemd-analyze", "security", "--offline=true", "--threshold=20", "--no-pager", unit)
            self.assertEqual(done.returncode, 0, done.stdout)
            exposure = re.search(r"Overall exposure level for \S+: ([0-9.]+)", done.stdout).group(1)
            self.assertLessEqual(float(exposure), 2.0, unit.name)

    def test_units_start_what_is_installed_as_users_that_are_made(self):
        users = set(re.findall(r"^u (\w+)", "".join(
            file.read_text() for file in self.tree.glob("lib/sysusers.d/*")), re.M))
        for unit in self.units:
            text = unit.read_text()
            program = re.search(r"^ExecStart=(\S+)", text, re.M).group(1)
            for started in re.findall(r"^Exec\w+=-?(\S+)", text, re.M):
                self.assertTrue(os.access(f"{self.root}{started}", os.X_OK), started)
            self.assertIn(re.search(r"^User=(\w+)", text, re.M).group(1), users)
            for option in re.findall(r"(?<= )--[a-z-]+", text):
                self.assertIn(option, run(f"{self.root}{program}", "--help").stdout)
            self.assertRegex(text, r"(?m)^StartLimitBurst=[0-9]+$")
            self.assertRegex(text, r"(?m)^StartLimitIntervalSec=[0-9]+min$")
            self.assertNotIn("@", re.sub(r"~?@(system-service|privileged|resources|chown)|blade@", "", text))

    def test_units_take_options_from_a_file_that_is_installed(self):
        for unit in self.units:
            name = unit.name.partition(".")[0].rstrip("@")
            text = unit.read_text()
            variable = f"{name.upper()}_OPTIONS"
            self.assertRegex(text, rf"(?m)^ExecStart=(.*\\\n)*.* \${variable}$")
            self.assertRegex(text, rf"(?m)^EnvironmentFile=-?/\S*etc/default/{name}$")
            example = (self.tree / f"etc/default/{name}").read_text()
            given = re.search(rf"^#?{variable}=\"(.*)\"$", example, re.M).group(1)
            program = re.search(r"^ExecStart=(\S+)", text, re.M).group(1)
            subcommand = given.partition("--")[0].split()
            for option in re.findall(r"(?:^| )(--[a-z-]+)", given):
                self.assertIn(option, run(f"{self.root}{program}", *subcommand, "--help").stdout)
        blade = (self.tree / "lib/systemd/system/blade@.service").read_text()
        self.assertRegex(re.findall(r"^EnvironmentFile=(.*)$", blade, re.M)[-1], r"^-/\S*etc/default/blade-%i$")

    def test_units_wait_for_the_addresses_that_they_listen_on(self):
        listening = [unit for unit in self.units if "--listen" in
                     (self.tree / f"etc/default/{unit.stem.rstrip('@')}").read_text()]
        self.assertEqual([unit.stem for unit in listening], ["evarchiver", "evgate", "evweb"])
        for unit in listening:
            for key in ("Wants", "After"):
                self.assertRegex(unit.read_text(), rf"(?m)^{key}=network-online\.target\b")

    def test_who_only_reads_the_archive_is_another_user_of_its_group(self):
        archiver, *readers = [(self.tree / f"lib/systemd/system/{name}.service").read_text()
                              for name in ("evarchiver", "evbridge", "evweb")]
        # What is made there is the group's to read: the directory, and the archive's files in it.
        for mode in ("UMask=0027", "StateDirectoryMode=0750", "Group=evarchiver"):
            self.assertIn(f"\n{mode}\n", archiver)
        for text in readers:
            self.assertIn("\nSupplementaryGroups=evarchiver\n", text)
            self.assertNotRegex(text, r"(?m)^(User|Group|StateDirectory|ReadWritePaths)=.*evarchiver")
        archive = re.search(r"--db ([^\s\"]+)", archiver).group(1)
        self.assertIn(f"\nf {archive} 0640 evarchiver evarchiver -\n",
                      (self.tree / "lib/tmpfiles.d/evarchiver.conf").read_text())

    def test_log_is_guarded_before_its_blade_starts(self):
        text = (self.tree / "lib/systemd/system/blade@.service").read_text()
        program, words = re.search(r"^ExecStartPre=-(\S+) (.*)$", text, re.M).groups()
        base = re.search(r"--base (\S+)", text).group(1)
        *command, log = words.split()
        self.assertEqual(command, ["file", "guard"])
        self.assertEqual(log, f"{base}/slot%i/nvram/kelta_eventlog")
        self.assert_silent(run(f"{self.root}{program}", *command, f"{self.root}/missing"))

    def test_blade_may_give_its_directories_and_sockets_to_its_group(self):
        text = (self.tree / "lib/systemd/system/blade@.service").read_text()
        self.assertIn(" --group blade ", text)
        # The last word on a call counts; those that give files away are among the privileged ones.
        filters = re.findall(r"^SystemCallFilter=(.*)$", text, re.M)
        self.assertEqual([words for words in filters if "@chown" in words or "@privileged" in words][-1], "@chown")

    def test_users_and_directories_are_well_formed(self):
        for kind in ("sysusers", "tmpfiles"):
            for file in self.tree.glob(f"lib/{kind}.d/*"):
                option = ["--dry-run"] if kind == "sysusers" else ["--cat-config"]
                done = run(f"systemd-{kind}", *option, file)
                self.assertEqual(done.returncode, 0, done.stderr)
        made = "".join(file.read_text() for file in self.tree.glob("lib/tmpfiles.d/*"))
        for unit in self.units:
            for kind, parent in (("State", "/var/lib/"), ("Logs", "/var/log/")):
                for name in re.findall(rf"^{kind}Directory=(\w+)", unit.read_text(), re.M):
                    self.assertIn(f"d {parent}{name} ", made)

    def test_logs_are_rotated_and_the_blade_is_told(self):
        text = (self.tree / "etc/logrotate.d/event-manager").read_text()
        unit = (self.tree / "lib/systemd/system/blade@.service").read_text()
        for log in re.findall(r"--(?:emp|msm)-log (\S+)", unit):
            self.assertTrue(fnmatch.fnmatch(log, re.search(r"^(/\S+) {$", text, re.M).group(1)), log)
        user = re.search(r"^User=(\w+)", unit, re.M).group(1)
        self.assertIn(f"    su {user} {user}\n", text)
        self.assertIn("--signal=USR1 'blade@*.service'", text)
        logs, told = self.root / "logs", self.root / "told"
        logs.mkdir(mode=0o750)
        (logs / "emp-1.log").write_text("a line\n")
        here = re.sub(r"postrotate\n.*\n", f"postrotate\ntouch {told}\n", text).replace("/var/log/blade", str(logs))
        here = re.sub(r"    su .*\n", "", here)
        (self.root / "rotation").write_text(here)
        done = run("/usr/sbin/logrotate", "--force", "--state", self.root / "state", self.root / "rotation")
        self.assert_silent(done)
        self.assertEqual([file.read_text() for file in logs.iterdir()], ["a line\n"])
        self.assertFalse((logs / "emp-1.log").exists())
        self.assertTrue(told.exists())

    # --- Completion

    OFFERED = (
        (("evctl", ""), {"file", "log", "--help"}), (("evctl", "file", ""), {"list", "verify", "--help"}),
        (("evctl", "file", "list", "--"), {"--json", "--help"}),
        (("evctl", "file", "list", "-o", ""), {"short", "csv"}),
        (("evctl", "file", "list", "--type", ""), {"warning", "error"}), (("evctl", "log", "--source", ""), {"startup", "snmp"}),
        (("evctl", "explain", ""), {"unwrapped", "bad-source"}), (("evctl", "catalog", "show", ""), {"startup"}),
        (("evctl", "file", "list", "--around", ""), {"crash"}), (("evctl", "log", "--text", "x", "--"), {"--hex"}),
        (("evctl", "file", "list", "--id", ""), {"signal", "dummy"}), (("evctl", "log", "--source", "startup", "--id", ""), {"signal"}),
        (("evctl", "file", "list", "--type=wa"), {"--type=warning"}), (("evctl", "file", "list", "-r", "--output=js"), {"--output=json"}),
        (("evctl", "file", "list", "--type", "error,wa"), {"error,warning"}),
        (("evctl", "file", "list", "--type=error,wa"), {"--type=error,warning"}),
        (("msm", "--"), {"--help"}), (("blade", "--"), {"--slot", "--key"}), (("evarchiver", "--"), {"--listen"}),
    )

    def check_completion(self, offer):
        path = f"{self.tree}/bin:{self.tree}/sbin:{os.environ['PATH']}"
        for words, expected in self.OFFERED:
            done = offer(words, {**os.environ, "PATH": path, "HOME": str(self.root)})
            self.assertEqual(done.stderr, "", words)
            self.assertEqual(expected - set(done.stdout.split()), set(), words)

    # A shell that has completed another program since: all share their functions' names.
    def test_bash_completes_by_the_programs_help(self):
        self.check_completion(lambda words, environment: run(
            "bash", "--norc", "-c", 'source "$1"; source "${1%/*}/evfleet"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _event_manager; '
            'printf "%s\\n" "${COMPREPLY[@]}"', "bash",
            str(self.tree / "share/bash-completion/completions" / words[0]), *words, env=environment))

    def test_bash_completes_where_a_value_is_a_word_of_its_own(self):
        source = f"source {self.tree}/share/bash-completion/completions/evctl; "
        for words, expected in (("=", "warning"), ("= wa", "warning"), ("= error,wa", "error,warning")):
            done = run("bash", "--norc", "-c", source + f"COMP_WORDS=(evctl file list --type {words}); COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1)); "
                       "_event_manager; echo ${COMPREPLY[@]}", env={**os.environ, "PATH": f"{self.tree}/bin:{os.environ['PATH']}"})
            self.assertIn(expected, done.stdout.split(), words)

    def test_zsh_completes_by_the_programs_help(self):
        self.check_completion(lambda words, environment: run(
            "zsh", "-f", "-c", 'compadd() { print -l -- "${(P@)2}" }; _files() { }; file=$1; shift; words=("$@"); '
            'CURRENT=$#; source $file', "zsh", str(self.tree / f"share/zsh/site-functions/_{words[0]}"), *words,
            env=environment))

    def test_fish_completes_by_the_programs_help(self):
        self.check_completion(lambda words, environment: run(
            "fish", "--no-config", "-c", f"source {self.tree}/share/fish/vendor_completions.d/{words[0]}.fish; "
            f"source {self.tree}/share/fish/vendor_completions.d/evfleet.fish; complete -C '{' '.join(words)}'", env=environment))


if __name__ == "__main__":
    unittest.main()
