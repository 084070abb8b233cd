"""Checks the tables of the built packages for what Wine accepts and Windows does not: an action of the wrong type, at
the wrong place, as the wrong user or without its data. And checks what the script that builds them refuses.

Usage: package_tables_test.py BUILD_FOLDER
"""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PROJECT = Path(__file__).parents[2]
BUILD = Path(sys.argv.pop(1))
sys.path.insert(0, str(PROJECT / "package"))
sys.dont_write_bytecode = True
import build_package  # noqa: E402

FRAGMENT, REHEARSAL = PROJECT / "package/custom_actions.wxs", PROJECT / "package/rehearsal.wxs"
SOURCES = {"quorbel": PROJECT / "package/quorbel.wxs", "toy_set": PROJECT / "tests/package/toy_set.wxs"}
PACKAGES = ("Sorvane.Icon", "Sorvane.Organize", "Sorvane.Tag", "Sorvane.Rate", "Quorbel.Kindra", "Quorbel.Paste",
            "Quorbel.Comment", "Quorbel.Plexa")
# Variables of the sources; most do not appear in the rows that are compared.
VARIABLES = {
    **dict.fromkeys(("Library", "LowestControlledVersion", "InstalledVersionKey", "InstalledVersionName", "ReleaseNotes",
                     "HowItCameGuid", "ProductCode", "UpgradeCode"), "x"),
    "Version": "1.5.0", "Packages": ";".join(PACKAGES)}
IN_SCRIPT, ROLLBACK, NO_IMPERSONATION, IGNORE = 1024, 256, 2048, 64
# Deferred actions by the immediate action that sets their data.
DATA_OF = {
    "close_and_kill_our_processes": {"restore_explorer", "rollback_explorer"},
    "capture_search_state": {"stop_search", "rollback_search", "restore_search"},
    "prepare_controlled_upgrade": {"begin_controlled_upgrade", "install_upgrade_packages", "finish_controlled_upgrade",
                                   "rollback_controlled_upgrade"},
}
# The rollback action of each action that changes the machine.
PARTNERS = {
    "begin_controlled_upgrade": "rollback_controlled_upgrade", "stop_search": "rollback_search",
    "propertyhandler_update_registry": "rollback_property_handler",
    "iconhandler_add_defaults_to_registry": "rollback_icon_handler",
    "propertyhandler_remove_registry": "put_back_property_handler",
    "iconhandler_remove_registry": "put_back_icon_handler",
    **{f"{verb}_{name}": f"undo_{verb}_{name}" for verb in ("install", "remove") for name in PACKAGES},
}

FRAME = {"capture_search_state", "close_and_kill_our_processes", "rollback_explorer", "rollback_search", "stop_search",
         "restore_search", "restore_explorer"}
REGISTRATION = {"check_upgrade_type", "log_app_control_state", "propertyhandler_update_registry",
                "iconhandler_add_defaults_to_registry"}
# The properties set in a session, and the actions that must run; "*" stands for each package.
SESSIONS = {
    "a first installation": ({}, FRAME | REGISTRATION | {
        "rollback_property_handler", "rollback_icon_handler", "undo_install_*", "install_*"}),
    "a repair": ({"Installed": "1"}, FRAME | REGISTRATION | {"install_*"}),
    "a removal": ({"Installed": "1", "REMOVE": "ALL"}, FRAME | {
        "put_back_property_handler", "propertyhandler_remove_registry", "put_back_icon_handler",
        "iconhandler_remove_registry", "restore_built_in_new_context_menu", "undo_remove_*", "remove_*",
        "notify_restart_recommended"}),
    "the removal of the old version in an upgrade": (
        {"Installed": "1", "REMOVE": "ALL", "UPGRADINGPRODUCTCODE": "{}"}, set()),
    "an upgrade": ({"OLDER_VERSION_FOUND": "{}"}, FRAME | REGISTRATION | {"undo_upgrade_*", "install_*"}),
    "a controlled upgrade": (
        {"OLDER_VERSION_FOUND": "{}", "WIX_UPGRADE_DETECTED": "{}", "QblEarlyRecoveryTask": "x"}, REGISTRATION | {
            "prepare_controlled_upgrade", "early_close_upgrade", "rollback_controlled_upgrade",
            "begin_controlled_upgrade", "install_upgrade_packages", "finish_controlled_upgrade",
            "recover_early_upgrade", "recover_after_error", "recover_after_cancel"}),
}


def holds(condition, session):
    """Evaluates an installer condition."""
    def compare(found):
        value, operator, text = session.get(found[1], ""), found[2], found[3]
        return str({"~=": value.upper() == text.upper(), "<>": value != text, "><": text in value}[operator])

    words = re.sub(r'(\w+) ?(~=|<>|><) ?"([^"]*)"', compare, condition)
    known = {"AND": "and", "OR": "or", "NOT": "not", "True": "True", "False": "False"}
    return eval(re.sub(r"\w+", lambda word: known.get(word[0]) or str(word[0] in session), words) or "True")


def export(package, table):
    """The rows of a table, as dictionaries."""
    exported = subprocess.run(["msiinfo", "export", package, table], capture_output=True, check=True)
    columns, _, _, *rows = exported.stdout.decode().replace("\r", "").split("\n")
    return [dict(zip(columns.split("\t"), row.split("\t"))) for row in rows if row]


def documented_kinds():
    """{export: (its kind, whether it reads CustomActionData)}, from the table in docs/actions.md."""
    rows = re.findall(r"^\| `(\w+)` \| ([^|]*) \| ([^|]*) \|", (PROJECT / "docs/actions.md").read_text(), re.MULTILINE)
    return {name: (kind, "CustomActionData" in reads) for name, kind, reads in rows}


class PackageTables(unittest.TestCase):
    def each_package(self):
        for name, source in SOURCES.items():
            path = BUILD / f"package/{name}-1.5.0.msi"
            with self.subTest(package=path.name):
                self.path, self.source = path, source
                self.actions = {row["Action"]: row for row in export(path, "CustomAction")}
                self.sequence = {row["Action"]: row for row in export(path, "InstallExecuteSequence")}
                self.place = {action: int(row["Sequence"]) for action, row in self.sequence.items()}
                self.kind = {action: int(row["Type"]) for action, row in self.actions.items()}
                self.ours = [action for action, row in self.actions.items()
                             if row["Source"] == "custom_actions" and action != "fail_on_purpose"]
                yield

    def in_order(self, first, last):
        """The actions from `first` to `last` in sequence, without the rehearsal's."""
        rehearsal = {action for action, row in self.actions.items() if row["Source"] == "toy_engine"}
        chosen = [action for action, place in self.place.items()
                  if self.place[first] <= place <= self.place[last] and action not in rehearsal]
        return sorted(chosen, key=self.place.get)

    def condition(self, action):
        return self.sequence[action]["Condition"]

    def test_each_action_has_the_type_that_is_documented(self):
        exports = re.findall(r"^    (\w+)$", (PROJECT / "custom_actions/custom_actions.def").read_text(), re.MULTILINE)
        documented = documented_kinds()
        for _ in self.each_package():
            self.assertEqual({self.actions[action]["Target"] for action in self.ours}, set(exports))
            for action in self.ours:
                kind, _ = documented[self.actions[action]["Target"]]
                undoes = action.startswith(("rollback_", "put_back_", "undo_"))
                in_script = kind != "immediate"
                wanted = IN_SCRIPT * in_script + ROLLBACK * undoes
                wanted += NO_IMPERSONATION if in_script and "as the user" not in kind else 0
                found = self.kind[action] & (IN_SCRIPT | ROLLBACK | NO_IMPERSONATION)
                self.assertEqual(found, wanted, f"{action} has type {self.kind[action]} but is {kind}")
                if undoes:
                    self.assertTrue(self.kind[action] & IGNORE, f"{action} could stop a rollback")

    def test_each_action_is_sequenced_once_and_in_a_valid_place(self):
        for _ in self.each_package():
            places = sorted(self.place.values())
            self.assertEqual(places, sorted(set(places)), "two actions have the same place")
            self.assertEqual(set(self.actions) - set(self.place), set(), "these actions are not sequenced")
            begin, end = self.place["InstallInitialize"], self.place["InstallFinalize"]
            for action, kind in self.kind.items():
                if kind & IN_SCRIPT:
                    self.assertTrue(begin < self.place[action] < end, f"{action} is outside the script")
            for action, undone_by in PARTNERS.items():
                self.assertLess(self.place[undone_by], self.place[action], f"{action} comes before its rollback")
            self.assertEqual({action for action, place in self.place.items() if place < 0},
                             {"recover_after_error", "recover_after_cancel"})
            self.assertEqual(self.place["recover_after_error"], -3)
            self.assertEqual(self.place["recover_after_cancel"], -2)
            behind_files = self.in_order("stop_search", "RemoveExistingProducts")
            self.assertEqual(behind_files[-2:], ["InstallExecute", "RemoveExistingProducts"])
            self.assertEqual(self.place["RemoveExistingProducts"], self.place["InstallExecute"] + 1)
            self.assertEqual(self.in_order("close_and_kill_our_processes", "rollback_explorer"), [
                "close_and_kill_our_processes", "InstallValidate", "InstallInitialize", "rollback_controlled_upgrade",
                "begin_controlled_upgrade", "rollback_explorer"])
            self.assertEqual(self.in_order("prepare_controlled_upgrade", "refuse_folder"),
                             ["prepare_controlled_upgrade", "refuse_folder"])
            self.assertEqual(self.in_order("install_Sorvane.Icon", "InstallFinalize")[-5:], [
                "finish_controlled_upgrade", "fail_on_purpose", "restore_search", "restore_explorer", "InstallFinalize"])
            chain = ("InstallExecute", "propertyhandler_remove_registry", "iconhandler_remove_registry",
                     "RemoveRegistryValues", "restore_built_in_new_context_menu", "remove_Sorvane.Icon",
                     "remove_Quorbel.Plexa", "RemoveFiles", "InstallFiles", "WriteRegistryValues",
                     "propertyhandler_update_registry", "iconhandler_add_defaults_to_registry",
                     "install_upgrade_packages", "install_Sorvane.Icon", "install_Quorbel.Plexa", "InstallFinalize",
                     "recover_early_upgrade", "notify_restart_recommended")
            self.assertEqual(sorted(chain, key=self.place.get), list(chain))

    def test_the_fragment_leaves_no_order_to_the_compiler(self):
        fragment = build_package.expand([build_package.read(FRAGMENT)], dict(VARIABLES))[0]
        neighbours = {}
        for element in fragment.every("Custom", "SetProperty", "InstallExecute", "RemoveExistingProducts"):
            for side in {"Before", "After"} & set(element.attributes):
                action = element.get("Action", element.name)
                kind = re.sub("|".join(PACKAGES), "PACKAGE", action)  # packages may come in any order
                neighbours.setdefault((side, element.get(side)), set()).add(kind)
        self.assertEqual({place: actions for place, actions in neighbours.items() if len(actions) > 1}, {})

    def test_each_action_that_reads_data_has_its_property(self):
        documented = documented_kinds()
        given = {action: setter for setter, actions in DATA_OF.items() for action in actions}
        for _ in self.each_package():
            setters = {row["Source"]: action for action, row in self.actions.items() if int(row["Type"]) == 51}
            for action in self.ours:
                if not documented[self.actions[action]["Target"]][1]:
                    continue
                setter = given.get(action) or setters.get(action)
                self.assertIsNotNone(setter, f"nothing sets the property {action}")
                self.assertLess(self.place[setter], self.place[action], f"{action} comes before {setter}")
                self.assertEqual(self.condition(setter), self.condition(action), f"{action} may run without {setter}")

    def test_each_kind_of_session_runs_its_actions(self):
        for _ in self.each_package():
            for name, (session, wanted) in SESSIONS.items():
                for user in ("S-1-5-21-1", "S-1-5-18"):  # LocalSystem, the second, has no packages
                    found = {action for action in self.ours
                             if holds(self.condition(action), {**session, "UserSID": user})}
                    expected = {action.replace("*", package) for action in wanted for package in PACKAGES
                                if user != "S-1-5-18" or "*" not in action}
                    self.assertEqual(found, expected, f"{name} by {user}")

    def test_early_conditions_need_no_costing_and_ignored_failures_are_known(self):
        for _ in self.each_package():
            for action in self.in_order("AppSearch", "InstallValidate"):
                self.assertNotRegex(self.condition(action), r'(?<!NOT )REMOVE~="ALL"', action)
            self.assertTrue(self.condition("refuse_folder").startswith('NOT REMOVE~="ALL" AND ('))
            for character in "[]\u2018\u2019\u201a\u201b":
                self.assertIn(f'INSTALLFOLDER >< "{character}"', self.condition("refuse_folder"))
            ignored = {action for action in self.ours if self.kind[action] & IGNORE and not self.kind[action] & ROLLBACK}
            self.assertEqual(ignored, {
                "early_close_upgrade", "recover_early_upgrade", "recover_after_error", "recover_after_cancel",
                "notify_restart_recommended", "restore_search", "restore_explorer", "iconhandler_remove_registry"})

    def test_built_packages_differ_from_the_sources_only_for_wine(self):
        added = build_package.read_conditions(PROJECT / "package/wine_conditions.txt")
        for _ in self.each_package():
            _, actions, sequence = build_package.tables([self.source, FRAGMENT, REHEARSAL], VARIABLES, {})
            self.assertEqual(
                {action: (row["Type"], row["Source"], row["Target"]) for action, row in self.actions.items()},
                {action: (str(kind), *rest) for action, (kind, *rest) in actions.items()})
            differing = {}
            for action, (condition, number) in sequence.items():
                self.assertEqual(self.place[action], number, action)
                if self.condition(action) != condition:
                    differing[action] = self.condition(action).removeprefix(f"({condition}) AND ")
            self.assertEqual(differing, added)

    def test_passed_properties_are_secure_and_named_files_are_always_installed(self):
        for _ in self.each_package():
            properties = {row["Property"]: row["Value"] for row in export(self.path, "Property")}
            self.assertLessEqual(
                {"INSTALLED_APP_VERSION", "QBL_INSTALLED_FOLDER", "INSTALLFOLDER", "OLDER_VERSION_FOUND",
                 "WIX_UPGRADE_DETECTED", "NEWER_VERSION_FOUND", "SAME_VERSION_FOUND"},
                set(properties["SecureCustomProperties"].split(";")))
            self.assertEqual(properties["MSIRESTARTMANAGERCONTROL"], "Disable")
            self.assertEqual(properties["PROMPTROLLBACKCOST"], "F")
            page = subprocess.run(["msiinfo", "export", self.path, "_ForceCodepage"], capture_output=True, check=True)
            self.assertIn(b"65001", page.stdout, "the code page cannot hold the four quotation marks")

            found = {row["ActionProperty"]: (row["VersionMin"], row["VersionMax"], int(row["Attributes"]))
                     for row in export(self.path, "Upgrade")}
            self.assertEqual(found, {  # 2: detect only; 256, 512: include the lower, the upper end
                "OLDER_VERSION_FOUND": ("0.0.0", "1.5.0", 256), "WIX_UPGRADE_DETECTED": ("1.5.0", "1.5.0", 258),
                "NEWER_VERSION_FOUND": ("1.5.0", "", 2), "SAME_VERSION_FOUND": ("1.5.0", "1.5.0", 770)})
            self.assertEqual({row["Condition"] for row in export(self.path, "LaunchCondition")},
                             {"Installed OR NOT NEWER_VERSION_FOUND", "Installed OR NOT SAME_VERSION_FOUND"})
            searches = {(row["ComponentId"], row["Type"]) for row in export(self.path, "CompLocator")}
            self.assertEqual(searches, {("{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}", "0")})

            component_of = {row["FileName"].split("|")[-1]: row["Component_"] for row in export(self.path, "File")}
            features = {row["Component_"]: row["Feature_"] for row in export(self.path, "FeatureComponents")}
            named = [f"{name}.Package.msix" for name in PACKAGES] + [
                "Quorbel.exe", "Quorbel.Kindra.HelperService.exe", "Quorbel.SystemTray.exe"]
            homes = {features[component_of[file]] for file in named}
            self.assertEqual(len(homes), 1, "a file that an action needs may be missing")
            feature = next(row for row in export(self.path, "Feature") if row["Feature"] in homes)
            self.assertEqual((feature["Level"], feature["Attributes"]), ("1", "16"), "the feature can be deselected")
            guid = next(row for row in export(self.path, "Component")
                        if row["ComponentId"] == "{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}")
            self.assertEqual(guid["Component"], component_of["Quorbel.exe"])


class BuildPackage(unittest.TestCase):
    # A text of the fragment, its replacement, and the error expected then.
    REFUSED = (
        ("<Binary Id", "<Binarie Id", "the element Binarie is not understood"),
        ("</Fragment>", "<MajorUpgrade/></Fragment>", "the element MajorUpgrade is not understood"),
        ('DllEntry="stop_search"', 'DllEntry="stop_search" Win64="yes"', "the attribute Win64 of CustomAction"),
        ('Execute="rollback"', 'Execute="commit"', 'Execute="commit" of CustomAction is not understood'),
        ('Return="ignore"', 'Return="asyncWait"', 'Return="asyncWait" of CustomAction is not understood'),
        ('DllEntry="stop_search" Execute', "Execute", "an action is a DllEntry of a Binary that is there"),
        ('Binary Id="custom_actions"', 'Binary Id="library"', "an action is a DllEntry of a Binary that is there"),
        ('<InstallExecute After="stop_search"', "<InstallExecute", "InstallExecute must have one place"),
        ('After="stop_search"', 'After="stop_searching"', "leads to no standard action"),
        ('Action="stop_search" After="rollback_search"', 'Action="stop_search" After="stop_search"',
         "leads to no standard action"),
        ('<Custom Action="stop_search"', '<Custom Action="stop_it"', "there is no action stop_it"),
        ('OnExit="cancel"', 'OnExit="error"', "has the place of another action: -3"),
        ('<Custom Action="recover_after_cancel"', '<Custom Action="recover_after_error"', "must have one place"),
        ("<InstallExecuteSequence>", "<InstallExecuteSequence>NOT Installed", "text is not understood"),
        ("$(var.Plain)", "$(var.Plane)", "the variable Plane has no value"),
        ("<?endforeach?>", "", "foreach needs an endforeach"),
        ("<?define Plain", "<?definite Plain", "the instruction definite is not understood"),
        (' Id="$(var.UpgradeCode)"', "", "Upgrade needs the attribute Id"),
    )

    def test_invalid_sources_are_refused_with_their_place_and_name(self):
        source = FRAGMENT.read_text(encoding="utf-8")
        with tempfile.TemporaryDirectory() as folder:
            broken = Path(folder, "broken.wxs")
            for found, put, message in self.REFUSED:
                with self.subTest(put=put):
                    self.assertIn(found, source)
                    broken.write_text(source.replace(found, put, 1), encoding="utf-8")
                    with self.assertRaises(build_package.SourceError) as caught:
                        build_package.tables([SOURCES["quorbel"], broken, REHEARSAL], VARIABLES, {})
                    self.assertRegex(str(caught.exception), rf"^{re.escape(str(broken))}:\d+: ")
                    self.assertIn(message, str(caught.exception))
            script = PROJECT / "package/build_package.py"
            output = Path(folder, "none.msi")
            result = subprocess.run([sys.executable, script, "-o", output, SOURCES["quorbel"], broken],
                                    capture_output=True, check=False)
            self.assertNotEqual(result.returncode, 0)
            self.assertRegex(result.stderr.decode(), r"^\S+\.wxs:\d+: ")
            self.assertFalse(output.exists())
            conditions = Path(folder, "conditions.txt")
            conditions.write_text("# a reason\none A\ntwo B\n", encoding="utf-8")
            with self.assertRaisesRegex(SystemExit, ":3: a condition needs a reason"):
                build_package.read_conditions(conditions)

    def test_an_unreferenced_fragment_is_left_out(self):
        with tempfile.TemporaryDirectory() as folder:
            plain = Path(folder, "plain.wxs")
            plain.write_text(re.sub(r"<CustomActionRef[^>]*>", "", SOURCES["quorbel"].read_text()), encoding="utf-8")
            _, actions, sequence = build_package.tables([plain, FRAGMENT, REHEARSAL], VARIABLES, {})
        self.assertEqual((actions, sequence), ({}, {}))


if __name__ == "__main__":
    unittest.main()
