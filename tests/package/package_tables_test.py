# Checks the sample package with package/check_package.py, that this finds each kind of mistake, and what
# package/build_package.py refuses.
#
# Usage: package_tables_test.py BUILD_FOLDER

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PACKAGE = Path(sys.argv.pop(1), "package/quorbel-2.0.0.msi")
SCRIPTS = Path(__file__).parents[2] / "package"
sys.path.insert(0, str(SCRIPTS))
sys.dont_write_bytecode = True
import build_package  # noqa: E402
import check_package  # noqa: E402

SUITE, FRAGMENT, REHEARSAL = (SCRIPTS / f"{name}.wxs" for name in ("quorbel", "custom_actions", "rehearsal"))
TEXT = FRAGMENT.read_text(encoding="utf-8")
VARIABLES = dict.fromkeys(re.findall(r"\$\(var\.(\w+)\)", TEXT + SUITE.read_text()), "x")

# ROW COLUMN=NEW VALUE: what each finding then says. A line for exports, types, data, places, conditions and so on.
MISTAKES = """
stop_search Target=stop_serch: calls stop_serch of custom_actions, expected stop | fail_on_purpose Target=x: calls x
rollback_search Type=3137: type 3137 (deferred, as LocalSystem, result ignored), expected type 3393 (rollback, as Local
fail_on_purpose Type=1025: calls restore_explorer as type 1025 (deferred, as the user), expected deferred and rollback
set_remove_Sorvane.Tag Target=x: data x, expected Sorvane.Tag | set_remove_Sorvane.Tag Sequence=1: data not set right
set_remove_Sorvane.Tag Condition=x: data set if x, expected | rollback_search Action=x: rollback_search: missing
RemoveFiles Sequence=1: before RemoveFiles (1) | recover_after_error Sequence=-1: at -1, expected -3
RemoveExistingProducts Sequence=1401: RemoveExistingProducts: at 1401, expected after InstallExecute (1526)
begin_controlled_upgrade Condition=WIX_UPGRADE: does not run in a controlled upgrade | stop_search Condition=(X: bracket
recover_early_upgrade Condition=QblEarlyRecoveryTask AND UserSID<>"S-1-5-18": does not run in a controlled upgrade as L
refuse_folder Condition=NOT REMOVE~="ALL" AND INSTALLFOLDER><"[": accepts U+ | SecureCustomProperties Value=x: without
1.5.0 Attributes=1: from 1.5.0 to 2.0.0, attributes 1, expected | Installed OR NOT SAME_VERSION_FOUND Condition=x: miss
QBL_INSTALLED_FOLDER Property=x: FOLDER: another | INSTALLED_APP_VERSION Property=x: VERSION: another
tray_program Directory_=x: Tray.exe: missing | tray_program Condition=x: not always
suite Level=3: always installed | suite Attributes=0: no value Version
suite KeyPath=x: Component suite: expected | x64;1033 Template=Intel: a package for Intel, expected x64
"""


def run(script, *arguments):
    return subprocess.run([sys.executable, SCRIPTS / script, *arguments], capture_output=True, text=True, check=False)


class PackageTables(unittest.TestCase):
    def test_the_sample_has_no_finding_and_a_wrong_package_its_own(self):
        with tempfile.NamedTemporaryFile(suffix=".msi") as wrong:
            Path(wrong.name).write_bytes(PACKAGE.read_bytes())
            subprocess.run(["msibuild", wrong.name, "-q", "DELETE FROM `Property` WHERE `Value` = 'F'"], check=True)
            finding = f"{wrong.name}: Property PROMPTROLLBACKCOST: missing, expected F\n"
            for packages, *expected in ([PACKAGE], "", 0), ([wrong.name, PACKAGE], finding, 1), ([FRAGMENT], "", 2):
                result = run("check_package.py", *packages)
                self.assertEqual([result.stdout, result.returncode], expected, result.stdout + result.stderr)

    def test_each_kind_of_mistake_is_found(self):
        tables, (exports, places) = check_package.read(PACKAGE), check_package.documented()
        own = check_package.findings(tables, exports, places)
        for mistake in re.split(r" \| |\n", MISTAKES.strip()):
            key, column, value, message = re.fullmatch(r"(.*?) (\w+)=(.*?): (.*)", mistake).groups()
            wrong = {name: [dict(row) for row in rows] for name, rows in tables.items()}
            changed = next(row for rows in wrong.values() for row in rows if column in row and key in row.values())
            changed[column] = value
            found = [": ".join(it) for it in check_package.findings(wrong, exports, places) if it not in own]
            with self.subTest(mistake):
                self.assertTrue(found and all(message in finding for finding in found), found)
        self.assertEqual({place.export for rows in places for place in rows.values()}, {*exports, None})

    def test_the_fragment_leaves_no_order_to_the_compiler(self):
        places = re.findall(r'\b(?:Before|After)="[^"]*"', TEXT)
        self.assertEqual({place for place in places if places.count(place) > 1}, set())

    def test_bad_sources_are_refused_with_their_place_and_name(self):
        for found, put, message in (
                ('DllEntry="stop_search"', 'DllEntry="stop_search" Win64="yes"', "the attribute Win64 of CustomAction"),
                ('"check_upgrade_type"/>\n    <', '"check_upgrade_type" Impersonate="no"/>\n    <', "always runs as"),
                ('After="stop_search"', 'After="stop_searching"', "leads to no standard action"),
                ('OnExit="cancel"', 'OnExit="error"', "has the place of another action: -3"),
                ("<InstallExecuteSequence>", "<InstallExecuteSequence>NOT Installed", "text is not understood"),
                ("$(var.Plain)", "$(var.Plane)", "the variable Plane has no value")):
            with self.subTest(put=put), tempfile.NamedTemporaryFile(suffix=".wxs") as source:
                Path(source.name).write_text(TEXT.replace(found, put, 1), encoding="utf-8")
                with self.assertRaisesRegex(build_package.SourceError, rf"^{source.name}:\d+: .*{re.escape(message)}"):
                    build_package.tables([SUITE, source.name, REHEARSAL], VARIABLES, {})

    def test_a_failing_tool_leaves_no_package(self):
        package = Path(tempfile.mkstemp(suffix=".msi")[1])
        result = run("build_package.py", *(f"-d{v}=x" for v in VARIABLES), "-o", package, SUITE, FRAGMENT, REHEARSAL)
        self.assertEqual((result.stderr[-15:], package.exists()), ("wixl failed: 1\n", False), result.stderr)


unittest.main()
