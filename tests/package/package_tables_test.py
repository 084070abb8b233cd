# Checks the tables of the sample package for what Wine accepts and Windows does not, and what the script that builds
# them refuses.
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
from xml.etree import ElementTree

PROJECT = Path(__file__).parents[2]
BUILD = Path(sys.argv.pop(1))
sys.path.insert(0, str(PROJECT / "package"))
sys.dont_write_bytecode = True
import build_package  # noqa: E402

QUORBEL, FRAGMENT, REHEARSAL = (PROJECT / f"package/{name}.wxs" for name in ("quorbel", "custom_actions", "rehearsal"))
PACKAGES = ("Sorvane.Icon", "Sorvane.Organize", "Sorvane.Tag", "Sorvane.Rate", "Quorbel.Kindra", "Quorbel.Paste",
            "Quorbel.Comment", "Quorbel.Plexa")
SUITE = "{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}"  # the component of Quorbel.exe
TRAITS = ("immediate", "as the user")  # of an action, as in docs/actions.md

# The properties set in each kind of session: F a first installation, R a repair, X a removal, D one by deselecting all
# features (InstallValidate sets REMOVE then), U an upgrade, C a controlled one, O the old version's removal in either.
SESSIONS = {
    "F": {}, "R": {"Installed": "1"},
    "X": {"Installed": "1", "REMOVE": "ALL"}, "D": {"Installed": "1", "REMOVE": "ALL"},
    "U": {"OLDER_VERSION_FOUND": "{}"},
    "C": {"OLDER_VERSION_FOUND": "{}", "WIX_UPGRADE_DETECTED": "{}", "QblEarlyRecoveryTask": "x"},
    "O": {"Installed": "1", "REMOVE": "ALL", "UPGRADINGPRODUCTCODE": "{}"},
}
# The actions in their order, with some of Windows' own. "= NAME" is the export if it has another name; ":=" sets a
# property. Then the kind, and the sessions in which the action runs; after "/" those of LocalSystem if they are others.
# A group of lines with "*" is repeated for each package. "OnExit" has the number of the session's end.
SEQUENCE = """
OnExit -3: recover_after_error = recover_early_upgrade, immediate, ignored, C
OnExit -2: recover_after_cancel = recover_early_upgrade, immediate, ignored, C
AppSearch
check_upgrade_type, immediate, FRDUC
log_app_control_state, immediate, FRDUC
CostFinalize
prepare_controlled_upgrade, immediate, C
refuse_folder, error, FRDUC
capture_search_state, immediate, FRXDU
early_close_upgrade, immediate, ignored, C
close_and_kill_our_processes, immediate, FRXDU
InstallValidate
InstallInitialize
rollback_controlled_upgrade, rollback, ignored, C
begin_controlled_upgrade, deferred, C
rollback_explorer = restore_explorer, rollback, ignored, FRXDU
rollback_search = restore_search, rollback, ignored, FRXDU
stop_search, deferred, FRXDU
undo_upgrade_* := [QBL_INSTALLED_FOLDER]*.Package.msix, U/none
undo_upgrade_* = msix_install_package, rollback as the user, ignored, U/none
InstallExecute, FRXDUC
RemoveExistingProducts
put_back_property_handler = propertyhandler_update_registry, rollback, ignored, XD
propertyhandler_remove_registry, deferred, XD
put_back_icon_handler = iconhandler_add_defaults_to_registry, rollback as the user, ignored, XD
iconhandler_remove_registry, deferred as the user, ignored, XD
RemoveRegistryValues
restore_built_in_new_context_menu, deferred as the user, XD
undo_remove_* := [INSTALLFOLDER]*.Package.msix, XD/none
undo_remove_* = msix_install_package, rollback as the user, ignored, XD/none
remove_* := *, XD/none
remove_* = msix_uninstall_package, deferred as the user, XD/none
RemoveFiles
WriteRegistryValues
rollback_property_handler = propertyhandler_remove_registry, rollback, ignored, F
propertyhandler_update_registry, deferred, FRUC
rollback_icon_handler = iconhandler_remove_registry, rollback as the user, ignored, F
iconhandler_add_defaults_to_registry, deferred as the user, FRUC
install_upgrade_packages, deferred, C
undo_install_* := *, F/none
undo_install_* = msix_uninstall_package, rollback as the user, ignored, F/none
install_* := [INSTALLFOLDER]*.Package.msix, FRU/none
install_* = msix_install_package, deferred as the user, FRU/none
finish_controlled_upgrade, deferred, C
restore_search, deferred, ignored, FRXDU
restore_explorer, deferred, ignored, FRXDU
InstallFinalize
recover_early_upgrade, immediate, ignored, C
notify_restart_recommended, immediate, ignored, XD
""".strip()


# The lines of a text, with each group that has a "*" repeated for each package.
def for_each_package(text):
    text = re.sub(r"(.*\*.*\n)+", lambda group: "".join(group[0].replace("*", name) for name in PACKAGES), text)
    return text.split("\n")


# Evaluates an installer condition.
def holds(condition, session):
    def compare(found):
        value, text = session.get(found[1], ""), found[3]
        return str(int({"~=": value.upper() == text.upper(), "<>": value != text, "><": text in value}[found[2]]))

    words = re.sub(r'(\w+) ?(~=|<>|><) ?"([^"]*)"', compare, condition)
    known = {"AND": "and", "OR": "or", "NOT": "not"}
    return eval(re.sub(r"[A-Za-z]\w*", lambda word: known.get(word[0]) or str(word[0] in session), words))


# The letters of the sessions in which an action with a condition runs.
def sessions(row, **properties):
    given = {letter: {"INSTALLFOLDER": "[", **session, **properties} for letter, session in SESSIONS.items()}
    if 0 <= int(row["Sequence"]) < build_package.STANDARD_ACTIONS["InstallValidate"]:
        del given["D"]["REMOVE"]
    return "".join(letter for letter in given if row["Condition"] and holds(row["Condition"], given[letter])) or "none"


# A type of actions in words.
def kind(number):
    execute = {0: "immediate", 1024: "deferred", 1024 + 256: "rollback"}.get(number & (1024 + 256), f"type {number}")
    user = " as the user" if number & 1024 and not number & 2048 else ""
    return "error" if number == 19 else execute + user + (", ignored" if number & 64 else "")


# A line as in SEQUENCE. `action` is the row of the CustomAction table, or {} for one of Windows' own.
def describe(row, action):
    user, system = sessions(row, UserSID="S-1-5-21-1"), sessions(row, UserSID="S-1-5-18")
    name = row["Action"] if int(row["Sequence"]) >= 0 else f"OnExit {row['Sequence']}: {row['Action']}"
    name += f" = {action['Target']}" if action.get("Source") and action["Target"] != row["Action"] else ""
    words = [name, kind(int(action["Type"]))] if action else [name]
    if action.get("Type") == "51":
        words = [f"{action['Source']} := {action['Target']}"]
    return ", ".join(words + [user if user == system else f"{user}/{system}"] * bool(row["Condition"]))


# The rows of a table, as dictionaries.
def export(package, table):
    exported = subprocess.run(["msiinfo", "export", package, table], capture_output=True, check=True)
    columns, _, _, *rows = exported.stdout.decode().replace("\r", "").split("\n")
    return [dict(zip(columns.split("\t"), row.split("\t"))) for row in rows if row]


class PackageTables(unittest.TestCase):
    def setUp(self):
        self.path = BUILD / "package/quorbel-2.0.0.msi"
        rehearsal = re.findall(r'(?:CustomAction Id|SetProperty Action)="(\w+)"', REHEARSAL.read_text())
        self.actions = {row["Action"]: row for row in export(self.path, "CustomAction")}
        rows = [row for row in export(self.path, "InstallExecuteSequence") if row["Action"] not in rehearsal]
        self.sequence = sorted(rows, key=lambda row: int(row["Sequence"]))

    def rows(self, table, *columns):
        return {tuple(row[column] for column in columns) for row in export(self.path, table)}

    def test_the_actions_run_in_this_order_as_these_kinds_in_these_sessions(self):
        wanted = for_each_package(SEQUENCE)
        found = [describe(row, self.actions.get(row["Action"], {})) for row in self.sequence
                 if row["Action"] in wanted or row["Action"] in self.actions or row["Condition"]]
        if found != wanted:
            self.fail("\n".join(difflib.unified_diff(wanted, found, "expected", "found", n=1, lineterm="")))
        differing = {row["Action"] for row in self.sequence if sessions(row, ENGINE_IS_WINE="1") != sessions(row)}
        self.assertEqual(differing, {"recover_after_error"}, "these run in other sessions on Windows than on Wine")

    def test_each_bad_character_in_the_folder_is_refused(self):
        condition = next(row["Condition"] for row in self.sequence if row["Action"] == "refuse_folder")
        refused = [bad for bad in " ('[]\u2018\u2019\u201a\u201b\u201c" if holds(condition, {"INSTALLFOLDER": bad})]
        self.assertEqual(refused, list("[]\u2018\u2019\u201a\u201b"))

    def test_every_export_is_used_as_documented(self):
        documented = re.findall(r"^\| `(\w+)` \| ([^|]*) \|", (PROJECT / "docs/actions.md").read_text(), re.MULTILINE)
        used = {(row["Target"], word) for row in self.actions.values() if row["Source"] == "custom_actions"
                for word in ("", *TRAITS) if word in kind(int(row["Type"]))}
        self.assertEqual(used, {(name, word) for name, words in documented for word in ("", *TRAITS) if word in words})

    def test_properties_versions_and_searches(self):
        properties = dict(self.rows("Property", "Property", "Value"))
        self.assertEqual([properties["MSIRESTARTMANAGERCONTROL"], properties["PROMPTROLLBACKCOST"]], ["Disable", "F"])
        passed = {"INSTALLED_APP_VERSION", "QBL_INSTALLED_FOLDER", "INSTALLFOLDER", "OLDER_VERSION_FOUND",
                  "WIX_UPGRADE_DETECTED", "NEWER_VERSION_FOUND", "SAME_VERSION_FOUND"}
        self.assertEqual(passed - set(properties["SecureCustomProperties"].split(";")), set(), "these are not Secure")
        self.assertEqual(self.rows("Upgrade", "ActionProperty", "VersionMin", "VersionMax", "Attributes"), {
            # 2: detect only; 256, 512: include the lower, the upper end
            ("OLDER_VERSION_FOUND", "0.0.0", "2.0.0", "256"), ("WIX_UPGRADE_DETECTED", "1.5.0", "2.0.0", "258"),
            ("NEWER_VERSION_FOUND", "2.0.0", "", "2"), ("SAME_VERSION_FOUND", "2.0.0", "2.0.0", "770")})
        self.assertEqual(self.rows("LaunchCondition", "Condition"), {
            ("Installed OR NOT NEWER_VERSION_FOUND",), ("Installed OR NOT SAME_VERSION_FOUND",)})
        self.assertEqual(self.rows("CompLocator", "Signature_", "ComponentId"), {("QblInstalledFolder", SUITE)})
        self.assertIn(("QBL_INSTALLED_FOLDER", "QblInstalledFolder"), self.rows("AppSearch", "Property", "Signature_"))

    def test_what_the_actions_name_is_always_installed(self):
        component_of = {name.split("|")[-1]: home for name, home in self.rows("File", "FileName", "Component_")}
        self.assertIn((SUITE, component_of["Quorbel.exe"]), self.rows("Component", "ComponentId", "Component"))
        feature_of = dict(self.rows("FeatureComponents", "Component_", "Feature_"))
        fixed = {name for name, *how in self.rows("Feature", "Feature", "Level", "Attributes") if how == ["1", "16"]}
        named = [*for_each_package("*.Package.msix\n")[:-1], "Quorbel.exe", "Quorbel.Kindra.HelperService.exe",
                 "Quorbel.SystemTray.exe"]
        self.assertEqual([file for file in named if feature_of.get(component_of.get(file)) not in fixed], [],
                         "missing, or in a feature that can be deselected")


class BuildPackage(unittest.TestCase):
    # A text of the fragment, its replacement, and the error expected then.
    REFUSED = (
        ("</Fragment>", "<MajorUpgrade/></Fragment>", "the element MajorUpgrade is not understood"),
        ('DllEntry="stop_search"', 'DllEntry="stop_search" Win64="yes"', "the attribute Win64 of CustomAction"),
        ('"check_upgrade_type"/>\n    <', '"check_upgrade_type" Impersonate="no"/>\n    <', "always runs as the user"),
        ('After="stop_search"', 'After="stop_searching"', "leads to no standard action"),
        ('<Custom Action="stop_search"', '<Custom Action="stop_it"', "there is no action stop_it"),
        ('OnExit="cancel"', 'OnExit="error"', "has the place of another action: -3"),
        ("<InstallExecuteSequence>", "<InstallExecuteSequence>NOT Installed", "text is not understood"),
        ("$(var.Plain)", "$(var.Plane)", "the variable Plane has no value"),
    )

    def test_the_fragment_leaves_no_order_to_the_compiler(self):
        places = [(element.get("Before"), element.get("After")) for element in ElementTree.parse(FRAGMENT).iter()]
        self.assertEqual({place for place in places if any(place) and places.count(place) > 1}, set())

    # The errors of a build with this fragment. Tools in the folder come first.
    def build(self, folder, fragment):
        source, output = Path(folder, "fragment.wxs"), Path(folder, "none.msi")
        source.write_text(fragment, encoding="utf-8")
        variables = re.findall(r"\$\(var\.(\w+)\)", FRAGMENT.read_text() + QUORBEL.read_text())
        script = [sys.executable, PROJECT / "package/build_package.py", *(f"-d{name}=x" for name in variables)]
        result = subprocess.run([*script, "-o", output, QUORBEL, source, REHEARSAL], capture_output=True, check=False,
                                env={"PATH": f"{folder}:{os.environ['PATH']}"})
        self.assertNotEqual(result.returncode, 0)
        self.assertFalse(output.exists(), "a half-made package")
        return result.stderr.decode()

    def test_bad_sources_are_refused_with_their_place_and_name(self):
        fragment = FRAGMENT.read_text(encoding="utf-8")
        with tempfile.TemporaryDirectory() as folder:
            for found, put, message in self.REFUSED:
                with self.subTest(put=put):
                    self.assertIn(found, fragment)
                    errors = self.build(folder, fragment.replace(found, put, 1))
                    self.assertRegex(errors, rf"^\S+/fragment\.wxs:\d+: .*{re.escape(message)}")

    def test_a_failing_tool_leaves_no_package(self):
        with tempfile.TemporaryDirectory() as folder:
            for tool, script in (("wixl", '#!/bin/sh\ntouch "$4"\n'), ("msibuild", "#!/bin/sh\nexit 3\n")):
                Path(folder, tool).write_text(script)
                Path(folder, tool).chmod(0o755)
            errors = self.build(folder, FRAGMENT.read_text(encoding="utf-8"))
            self.assertEqual(errors, "msibuild failed: 3\n")


unittest.main()
