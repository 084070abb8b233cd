# Checks the tables of the sample package against the documents and for what Wine accepts and Windows does not, and what
# the script that builds it refuses.
#
# Usage: package_tables_test.py BUILD_FOLDER

import difflib
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PROJECT = Path(__file__).parents[2]
PACKAGE = Path(sys.argv.pop(1), "package/quorbel-2.0.0.msi")
sys.path.insert(0, str(PROJECT / "package"))
sys.dont_write_bytecode = True
import build_package  # noqa: E402

QUORBEL, FRAGMENT, REHEARSAL = (PROJECT / f"package/{name}.wxs" for name in ("quorbel", "custom_actions", "rehearsal"))
ACTIONS, AUTHORING = ((PROJECT / f"docs/{name}.md").read_text(encoding="utf-8") for name in ("actions", "authoring"))
PACKAGES = ("Sorvane.Icon", "Sorvane.Organize", "Sorvane.Tag", "Sorvane.Rate", "Quorbel.Kindra", "Quorbel.Paste",
            "Quorbel.Comment", "Quorbel.Plexa")
SUITE = "{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}"  # the component of Quorbel.exe

# The properties in each kind of session: F a first installation, R a repair, X a removal, U an upgrade, C a controlled
# one, O the old version's removal in either. Each is "ALL": no condition looks at another value.
SESSIONS = {
    "F": "", "R": "Installed", "X": "Installed REMOVE", "O": "Installed REMOVE UPGRADINGPRODUCTCODE",
    "U": "OLDER_VERSION_FOUND", "C": "OLDER_VERSION_FOUND WIX_UPGRADE_DETECTED QblEarlyRecoveryTask"}
# The conditions in docs/authoring.md, and the sessions in which each holds.
CONDITIONS = {
    "plain": "FRXU", "upgrade": "C", "removal": "X", "first": "F", "install": "FRUC", "install, bad folder": "FRUC",
    "install, not *upgrade*": "FRU", "older version, not *upgrade*": "U", "not as the old version": "FRXUC",
    "a task exists": "C", "": "FRXOUC"}


# The rows of the table "The places" there: action, kind, place, condition. Those for <package> are repeated for each.
def documented_places():
    section = AUTHORING.split("## The places\n")[1].split("\n## ")[0]
    for_each = re.compile(r"(^\|.*<package>.*\n)+", re.MULTILINE)
    section = for_each.sub(lambda rows: "".join(rows[0].replace("<package>", name) for name in PACKAGES), section)
    return [[cell.strip() for cell in line.split("|")[1:5]] for line in section.split("\n") if line.startswith("| `")]


# Evaluates an installer condition. An empty one holds.
def holds(condition, session):
    condition = re.sub(r'(\w+) >< ("[^"]*")', r"\2 in \1", condition)
    for installers, pythons in ("~=", "=="), ("<>", "!="), (r"\bAND\b", "and"), (r"\bOR\b", "or"), (r"\bNOT\b", "not"):
        condition = re.sub(installers, pythons, condition)
    return bool(eval(condition or "True", {**dict.fromkeys(re.findall(r"\w+", condition), ""), **session}))


# The letters of the sessions in which a condition holds.
def sessions(condition, user):
    return "".join(letter for letter, names in SESSIONS.items() if holds(condition, {
        "INSTALLFOLDER": "[", "UserSID": user, **dict.fromkeys(names.split(), "ALL")}))


# The kind of an action of this type.
def kind(number):
    execute = "r" if number & 256 else "d" if number & 1024 else "i"
    return execute + ("" if execute == "i" else " S" if number & 2048 else " U") + (", ignored" if number & 64 else "")


# An action with its export and data, its kind, its sessions as a user and as LocalSystem, and its number if that is
# negative. The row before it may set its data.
def describe(before, row):
    name, source, condition = row["Action"], row.get("Source"), row["Condition"]
    data = f" of `{before['Target']}`" if (before.get("Source"), before.get("Condition")) == (name, condition) else ""
    export = f" (`{row['Target']}`{data})" if source and row["Target"] != name else ""
    user, system = sessions(condition, "S-1-5-21-1"), sessions(condition, "S-1-5-18")
    number = f" {row['Sequence']}" if row["Sequence"] < "0" else ""
    return f"`{name}`{export} | {kind(int(row['Type'])) if 'Type' in row else ''} | {user}/{system}{number}"


# The rows of a table, as dictionaries.
def export(table):
    exported = subprocess.run(["msiinfo", "export", PACKAGE, table], capture_output=True, check=True)
    columns, _, _, *rows = exported.stdout.decode().replace("\r", "").split("\n")
    return [dict(zip(columns.split("\t"), row.split("\t"))) for row in rows if row]


def rows(table, *columns):
    return {tuple(row[column] for column in columns) for row in export(table)}


class PackageTables(unittest.TestCase):
    def setUp(self):
        rehearsal = re.findall(r'(?:CustomAction Id|SetProperty Action)="(\w+)"', REHEARSAL.read_text())
        self.actions = {row["Action"]: row for row in export("CustomAction")}
        self.sequence = [{**row, **self.actions.get(row["Action"], {})} for row in export("InstallExecuteSequence")
                         if row["Action"] not in rehearsal]
        self.sequence.sort(key=lambda row: (row["Sequence"] < "0", int(row["Sequence"])))

    def test_the_actions_run_as_documented(self):
        places, wanted = documented_places(), []
        for action, how, place, condition in places:
            user = CONDITIONS[condition.removesuffix("; user")]
            system = "" if condition.endswith("; user") else user
            wanted.append(f"{action} | {how} | {user}/{system}{place.partition(':')[2]}")
        found = [describe(before, row) for before, row in zip([{}, *self.sequence], self.sequence)
                 if row.get("Type", row["Condition"]) not in ("", "51") or row["Action"] == "RemoveExistingProducts"]
        assert wanted == found, "\n".join(difflib.unified_diff(wanted, found, "documented", "found", n=1, lineterm=""))
        number = {row["Action"]: int(row["Sequence"]) for row in self.sequence}
        for action, _, place, condition in places:
            here = number[action.split("`")[1]]
            for side, other in re.findall(r"(after|before) `(\w+)`", place):
                self.assertEqual(here < number[other], side == "before", f"{action}: {place}")
            # REMOVE is final from InstallValidate on.
            self.assertFalse("removal" in condition and 0 < here < number["InstallValidate"], f"{action}: too early")
        differing = {row["Action"] for row in self.sequence if "ENGINE_IS_WINE" in row["Condition"]}
        self.assertEqual(differing, {"recover_after_error"}, "these run in other sessions on Windows than on Wine")

    def test_each_bad_character_in_the_folder_is_refused(self):
        condition = next(row["Condition"] for row in self.sequence if row["Action"] == "refuse_folder")
        refused = [bad for bad in " ('[]\u2018\u2019\u201a\u201b\u201c" if holds(condition, {"INSTALLFOLDER": bad})]
        self.assertEqual(refused, list("[]\u2018\u2019\u201a\u201b"))

    def test_every_export_is_used_as_documented(self):
        documented = re.findall(r"^\| `(\w+)` \| ([^|]*) \|", ACTIONS, re.MULTILINE)
        used = [(row["Target"], int(row["Type"])) for row in self.actions.values() if row["Source"] == "custom_actions"]
        self.assertEqual({(name, number < 1024, number & 3072 == 1024) for name, number in used},
                         {(name, "immediate" in words, "as the user" in words) for name, words in documented})

    def test_properties_versions_and_searches(self):
        properties = dict(rows("Property", "Property", "Value"))
        self.assertEqual((properties["MSIRESTARTMANAGERCONTROL"], properties["PROMPTROLLBACKCOST"]), ("Disable", "F"))
        passed = {"INSTALLED_APP_VERSION", "QBL_INSTALLED_FOLDER", "INSTALLFOLDER", "OLDER_VERSION_FOUND",
                  "WIX_UPGRADE_DETECTED", "NEWER_VERSION_FOUND", "SAME_VERSION_FOUND"}
        self.assertEqual(passed - set(properties["SecureCustomProperties"].split(";")), set(), "these are not Secure")
        self.assertEqual(rows("Upgrade", "ActionProperty", "VersionMin", "VersionMax", "Attributes"), {
            # 2: detect only; 256, 512: include the lower, the upper end
            ("OLDER_VERSION_FOUND", "0.0.0", "2.0.0", "256"), ("WIX_UPGRADE_DETECTED", "1.5.0", "2.0.0", "258"),
            ("NEWER_VERSION_FOUND", "2.0.0", "", "2"), ("SAME_VERSION_FOUND", "2.0.0", "2.0.0", "770")})
        self.assertEqual(rows("LaunchCondition", "Condition"), {
            ("Installed OR NOT NEWER_VERSION_FOUND",), ("Installed OR NOT SAME_VERSION_FOUND",)})
        self.assertEqual(rows("CompLocator", "Signature_", "ComponentId"), {("QblInstalledFolder", SUITE)})
        self.assertIn(("QBL_INSTALLED_FOLDER", "QblInstalledFolder"), rows("AppSearch", "Property", "Signature_"))

    def test_what_the_actions_name_is_always_installed(self):
        component_of = {name.split("|")[-1]: home for name, home in rows("File", "FileName", "Component_")}
        self.assertIn((SUITE, component_of["Quorbel.exe"]), rows("Component", "ComponentId", "Component"))
        feature_of = dict(rows("FeatureComponents", "Component_", "Feature_"))
        fixed = {name for name, *how in rows("Feature", "Feature", "Level", "Attributes") if how == ["1", "16"]}
        named = ["Quorbel.exe", "Quorbel.Kindra.HelperService.exe", "Quorbel.SystemTray.exe"]
        named += [f"{name}.Package.msix" for name in PACKAGES]
        self.assertEqual([file for file in named if feature_of.get(component_of.get(file)) not in fixed], [],
                         "missing, or in a feature that can be deselected")


class BuildPackage(unittest.TestCase):
    # A text of the fragment, its replacement, and the error expected then.
    REFUSED = (
        ("</Fragment>", "<Media/></Fragment>", "the element Media is not understood here"),
        ('DllEntry="stop_search"', 'DllEntry="stop_search" Win64="yes"', "the attribute Win64 of CustomAction"),
        ('"check_upgrade_type"/>\n    <', '"check_upgrade_type" Impersonate="no"/>\n    <', "always runs as the user"),
        ('After="stop_search"', 'After="stop_searching"', "leads to no standard action"),
        ('OnExit="cancel"', 'OnExit="error"', "has the place of another action: -3"),
        ("<InstallExecuteSequence>", "<InstallExecuteSequence>NOT Installed", "text is not understood"),
        ("$(var.Plain)", "$(var.Plane)", "the variable Plane has no value"))
    FRAGMENT_TEXT = FRAGMENT.read_text(encoding="utf-8")
    VARIABLES = dict.fromkeys(re.findall(r"\$\(var\.(\w+)\)", FRAGMENT_TEXT + QUORBEL.read_text()), "x")

    def test_the_fragment_leaves_no_order_to_the_compiler(self):
        places = re.findall(r'\b(?:Before|After)="[^"]*"', self.FRAGMENT_TEXT)
        self.assertEqual({place for place in places if places.count(place) > 1}, set())

    def test_bad_sources_are_refused_with_their_place_and_name(self):
        for found, put, message in self.REFUSED:
            with self.subTest(put=put), tempfile.NamedTemporaryFile(suffix=".wxs") as source:
                Path(source.name).write_text(self.FRAGMENT_TEXT.replace(found, put, 1), encoding="utf-8")
                with self.assertRaisesRegex(build_package.SourceError, rf"^{source.name}:\d+: .*{re.escape(message)}"):
                    build_package.tables([QUORBEL, source.name, REHEARSAL], self.VARIABLES, {})

    def test_a_failing_tool_leaves_no_package(self):
        with tempfile.TemporaryDirectory() as folder:
            Path(folder, "wixl").symlink_to("/bin/true")
            Path(folder, "msibuild").symlink_to("/bin/false")
            half_made = Path(folder, "none.msi")
            half_made.touch()
            arguments = [*(f"-d{name}=x" for name in self.VARIABLES), "-o", half_made]
            result = subprocess.run([sys.executable, build_package.__file__, *arguments, QUORBEL, FRAGMENT, REHEARSAL],
                                    env={"PATH": f"{folder}:{os.environ['PATH']}"}, capture_output=True, check=False)
            self.assertEqual((result.stderr, half_made.exists()), (b"msibuild failed: 1\n", False))


unittest.main()
