#!/usr/bin/env python3
"""Checks packages that include custom_actions.wxs for mistakes that neither the compiler nor ICE validation reports.

The tables of each PACKAGE are compared with docs/authoring.md and docs/actions.md, which must be where they are in the
project: beside the folder of this script. Other actions of the package are ignored, except those that call the library.
Needs msiinfo, from Debian's msitools.

Prints one line per finding: PACKAGE: WHERE: what is wrong, what is expected. The conditions have the names that
docs/authoring.md gives them. The exit code is 0 without findings, 1 with findings, and 2 if the command line is wrong
or a file cannot be read or is no package.
"""

import argparse
import re
import subprocess
import sys
from itertools import pairwise
from pathlib import Path
from typing import NamedTuple

sys.dont_write_bytecode = True
from build_package import (  # noqa: E402
    DLL_FUNCTION, ERROR, IGNORE_RESULT, IN_SCRIPT, NO_IMPERSONATION, ROLLBACK, SET_PROPERTY)

DOCUMENTS = Path(__file__).parents[1] / "docs"
TABLES = ("AppSearch", "CompLocator", "Component", "Condition", "CustomAction", "Feature", "FeatureComponents", "File",
          "InstallExecuteSequence", "LaunchCondition", "Property", "RegLocator", "Registry", "Upgrade")

# What the fragment and the library expect by name.
LIBRARY = "custom_actions"  # the Id of the Binary
PACKAGES = ("Sorvane.Icon", "Sorvane.Organize", "Sorvane.Tag", "Sorvane.Rate", "Quorbel.Kindra", "Quorbel.Paste",
            "Quorbel.Comment", "Quorbel.Plexa")
SUITE, SUITE_PROGRAM = "{B8D5F2A1-C9E4-4F3D-8A7B-6C5E4D3F2A1B}", "Quorbel.exe"  # a component and its key path
FILES = (SUITE_PROGRAM, "Quorbel.Kindra.HelperService.exe", "Quorbel.SystemTray.exe",
         *(f"{name}.Package.msix" for name in PACKAGES))
SECURE = ("INSTALLED_APP_VERSION", "QBL_INSTALLED_FOLDER", "INSTALLFOLDER", "OLDER_VERSION_FOUND",
          "WIX_UPGRADE_DETECTED", "NEWER_VERSION_FOUND", "SAME_VERSION_FOUND")
PROPERTIES = {"MSIRESTARTMANAGERCONTROL": "Disable", "PROMPTROLLBACKCOST": "F"}
LAUNCH_CONDITIONS = ("Installed OR NOT NEWER_VERSION_FOUND", "Installed OR NOT SAME_VERSION_FOUND")
DISALLOW_ABSENT, COMPONENT_64_BIT = 16, 256  # Attributes of a feature, of a component
GOOD_CHARACTERS, BAD_CHARACTERS = " '()\u201c", "[]\u2018\u2019\u201a\u201b"  # of INSTALLFOLDER

# The kinds of session, and the properties that are set in each.
OLDER = {"OLDER_VERSION_FOUND": "{...}"}
SESSIONS = {
    "F": ("a first installation", {}),
    "R": ("a repair", {"Installed": "1"}),
    "M": ("a change of features", {"Installed": "1", "REMOVE": "Extras"}),
    "X": ("a removal", {"Installed": "1", "REMOVE": "all"}),  # as an administrator may type it
    "O": ("the old version's removal", {"Installed": "1", "REMOVE": "ALL", "UPGRADINGPRODUCTCODE": "{...}"}),
    "U": ("a plain upgrade", OLDER),
    "C": ("a controlled upgrade", {**OLDER, "WIX_UPGRADE_DETECTED": "{...}", "QblEarlyRecoveryTask": "task"})}
# The conditions in docs/authoring.md, and the sessions in which each is true.
CONDITIONS = {
    "plain": "FRMXU", "upgrade": "C", "removal": "X", "first": "F", "install": "FRMUC",
    "install, bad folder": "FRMUC", "install, not *upgrade*": "FRMU", "older version, not *upgrade*": "U",
    "not as the old version": "FRMXUC", "a task exists": "C", "": "FRMXOUC"}


class Unreadable(Exception):
    pass


class Place(NamedTuple):
    """A row of the table "The places" in docs/authoring.md."""
    type: int | None  # None: a standard action
    export: str | None
    data: str | None  # what a SetProperty right before the action provides
    where: str
    end: int | None  # the number of an end of the session
    condition: str


def msiinfo(*arguments):
    ran = subprocess.run(["msiinfo", *arguments], capture_output=True, check=False)
    if ran.returncode:
        raise Unreadable(f"{arguments[1]}: msiinfo cannot read it as a package")
    return ran.stdout.decode("utf-8", "replace").replace("\r", "").split("\n")


def read(package):
    """{table: its rows as dictionaries}. "Template" is a table of one row, from the summary information."""
    present, tables = msiinfo("tables", package), dict.fromkeys(TABLES, [])
    for table in set(TABLES).intersection(present):
        columns, _, _, *rows = msiinfo("export", package, table)
        tables[table] = [dict(zip(columns.split("\t"), row.split("\t"))) for row in rows if row]
    template = [line.partition(": ")[2] for line in msiinfo("suminfo", package) if line.startswith("Template: ")]
    return {**tables, "Template": [{"Template": "".join(template)}]}


def documented():
    """{export: its kind} and, for each sparse package, {action: Place} in order."""
    actions, authoring = ((DOCUMENTS / f"{name}.md").read_text(encoding="utf-8") for name in ("actions", "authoring"))
    exports = dict(re.findall(r"^\| `(\w+)` \| ([^|]*) \|", actions, re.MULTILINE))
    lines = [line for line in authoring.split("## The places\n")[1].split("\n## ")[0].split("\n") if line[:3] == "| `"]

    def places(package):
        found = {}
        for line in lines:
            name, how, where, condition = (cell.strip() for cell in line.replace("<package>", package).split("|")[1:5])
            action, export, data = re.fullmatch(r"`([\w.]+)`(?: \(`(\w+)`(?: of `(.+)`)?\))?", name).groups()
            export = export or (action if action in exports else None)
            kind = DLL_FUNCTION if export else ERROR
            kind += {"i": 0, "d": IN_SCRIPT, "r": IN_SCRIPT + ROLLBACK}[how[:1] or "i"]
            kind += (NO_IMPERSONATION if " S" in how else 0) + (IGNORE_RESULT if "ignored" in how else 0)
            end = int(where.partition(":")[2] or 0) or None
            found[action] = Place(kind if how else None, export, data, where, end, condition)
        return found

    return exports, [places(package) for package in PACKAGES]


def holds(condition, properties):
    """Evaluates an installer condition. Raises ValueError for anything but properties, texts, numbers, NOT, AND, OR,
    brackets, =, ~=, <> and ><. An empty condition holds."""
    tokens = re.findall(r'"[^"]*"|~?=|<>|><|[\w.]+|\S', condition or "1") + ["the end"]

    def taken(*words):
        return tokens.pop(0) if tokens[0].upper() in words else None

    def value():
        if not re.fullmatch(r'"[^"]*"|[\w.]+', tokens[0]):
            raise ValueError(f"not understood: {tokens[0]}")
        token = tokens.pop(0)
        return token.strip('"') if token[0] == '"' or token.isdecimal() else properties.get(token, "")

    def term():
        if taken("NOT"):
            return not term()
        if taken("("):
            result = either()
            if not taken(")"):
                raise ValueError("a bracket is not closed")
            return result
        left, sign = value(), taken("=", "~=", "<>", "><")
        right = value() if sign else None
        return {"=": left == right, "~=": left.upper() == str(right).upper(), "<>": left != right,
                "><": str(right) in left, None: left not in ("", "0")}[sign]

    def both():
        result = term()
        while taken("AND"):
            result = term() and result
        return result

    def either():
        result = both()
        while taken("OR"):
            result = both() or result
        return result

    result = either()
    if tokens != ["the end"]:
        raise ValueError(f"not understood: {tokens[0]}")
    return result


def described(kind):
    """An action's type in words."""
    words = ["rollback" if kind & ROLLBACK else "deferred"] if kind & IN_SCRIPT else ["immediate"]
    words += ["as LocalSystem" if kind & NO_IMPERSONATION else "as the user"] if kind & IN_SCRIPT else []
    words += ["result ignored"] if kind & IGNORE_RESULT else []
    return f"type {kind} ({', '.join(words)})"


def check_actions(tables, exports, places):
    """Type and export of the documented actions, and of others that call the library."""
    for row in tables["CustomAction"]:
        kind, target, place = int(row["Type"]), row["Target"], places.get(row["Action"])
        use, problem = exports.get(target), None
        immediate, as_user = kind & IN_SCRIPT == 0, kind & (IN_SCRIPT + NO_IMPERSONATION) == IN_SCRIPT
        if place and kind != place.type:
            problem = f"{described(kind)}, expected {described(place.type)}"
        elif place and place.export and (row["Source"], target) != (LIBRARY, place.export):
            problem = f"calls {target} of {row['Source']}, expected {place.export} of {LIBRARY}"
        elif row["Source"] == LIBRARY and not use:
            problem = f"calls {target}, expected an export of the library"
        elif row["Source"] == LIBRARY and (immediate, as_user) != ("immediate" in use, "as the user" in use):
            problem = f"calls {target} as {described(kind)}, expected {use}"
        if problem:
            yield f"CustomAction {row['Action']}", problem


def check_condition(condition, place):
    """The kinds of session in which an action runs, as a user and as LocalSystem."""
    expected, not_system, _ = place.condition.partition("; user")
    for sid, who in ("S-1-5-21-1", ""), ("S-1-5-18", " as LocalSystem"):
        letters = "" if who and not_system else CONDITIONS[expected]
        runs, misses = [], []
        for letter, (name, properties) in SESSIONS.items():
            does = holds(condition, {"INSTALLFOLDER": BAD_CHARACTERS, "UserSID": sid, **properties})
            if does != (letter in letters):
                (runs if does else misses).append(name)
        problems = [f"runs in {', '.join(runs)}"] if runs else []
        problems += [f"does not run in {', '.join(misses)}"] if misses else []
        if problems:
            return f"{' and '.join(problems)}{who}, expected: {place.condition or 'always'}"
    return None


def check_sequence(tables, places):
    """Place, condition and data of the documented actions."""
    rows = {row["Action"]: row for row in tables["InstallExecuteSequence"] if row["Sequence"]}
    number = {action: int(row["Sequence"]) for action, row in rows.items()}
    actions = {row["Action"]: row for row in tables["CustomAction"]}
    setters = {action: row for action, row in actions.items()
               if int(row["Type"]) & 63 == SET_PROPERTY and row["Source"] in places}
    ours = sorted((action for action in rows if action in places or action in setters), key=number.get)
    setter_of = {action: setters.get(before) for before, action in pairwise(ours)}

    def problems(action, place):
        condition, setter = rows[action]["Condition"], setter_of.get(action) or {}
        try:
            yield check_condition(condition, place)
        except ValueError as error:
            yield f"{error} in the condition {condition}, expected: {place.condition or 'always'}"
        data = setter.get("Target") if setter.get("Source") == action else None
        if data != place.data:
            yield f"data {data or 'not set right before it'}, expected {place.data or 'none'}"
        elif data and rows[setter["Action"]]["Condition"] != condition:
            yield f"data set if {rows[setter['Action']]['Condition']}, expected the action's condition: {condition}"
        for side, anchor in re.findall(r"(after|before) `(\w+)`", place.where):
            if anchor not in number or (number[action] < number[anchor]) != (side == "before"):
                yield f"at {number[action]}, expected {side} {anchor} ({number.get(anchor, 'missing')})"
        if place.end and number[action] != place.end:
            yield f"at {number[action]}, expected {place.end}"

    for action, place in places.items():
        missing = action not in rows or (place.type and action not in actions)
        found = ["missing, expected in the sequence"] if missing else problems(action, place)
        yield from ((f"InstallExecuteSequence {action}", problem) for problem in found if problem)
    for first, second in pairwise(action for action, place in places.items() if action in rows and not place.end):
        if number[first] >= number[second]:
            yield f"InstallExecuteSequence {second}", f"at {number[second]}, expected after {first} ({number[first]})"


def check_folder(tables):
    """The characters that refuse_folder refuses in INSTALLFOLDER."""
    for row in tables["InstallExecuteSequence"]:
        for character in BAD_CHARACTERS + GOOD_CHARACTERS if row["Action"] == "refuse_folder" else "":
            try:
                refused = holds(row["Condition"], {"INSTALLFOLDER": f"C:\\a{character}b\\"})
            except ValueError:
                return  # check_sequence reports it
            if refused != (character in BAD_CHARACTERS):
                does, should = ("refuses", "accepted") if refused else ("accepts", "refused")
                yield "InstallExecuteSequence refuse_folder", f"{does} U+{ord(character):04X}, expected {should}"


def check_properties(tables):
    """Properties, versions and launch conditions."""
    properties = {row["Property"]: row["Value"] for row in tables["Property"]}
    for name, value in PROPERTIES.items():
        if properties.get(name) != value:
            yield f"Property {name}", f"{properties.get(name, 'missing')}, expected {value}"
    secure = properties.get("SecureCustomProperties", "").split(";")
    yield from (("Property SecureCustomProperties", f"without {name}, expected with it")
                for name in SECURE if name not in secure)
    code, version = properties.get("UpgradeCode"), properties.get("ProductVersion")
    lowest = [row["VersionMin"] for row in tables["Upgrade"] if row["ActionProperty"] == "WIX_UPGRADE_DETECTED"]
    text = "{UpgradeCode} from {VersionMin} to {VersionMax}, attributes {Attributes}"
    # 2: detect only; 256, 512: include the lower, the upper end
    for name, minimum, maximum, attributes in (
            ("OLDER_VERSION_FOUND", "0.0.0", version, 256), ("NEWER_VERSION_FOUND", version, "", 2),
            ("WIX_UPGRADE_DETECTED", "".join(lowest[:1]) or "LowestControlledVersion", version, 258),
            ("SAME_VERSION_FOUND", version, version, 770)):
        found = [text.format(**row) for row in tables["Upgrade"] if row["ActionProperty"] == name]
        expected = text.format(UpgradeCode=code, VersionMin=minimum, VersionMax=maximum, Attributes=attributes)
        if found != [expected]:
            yield f"Upgrade {name}", f"{' and '.join(found) or 'missing'}, expected {expected}"

    conditions = [row["Condition"] for row in tables["LaunchCondition"]]
    yield from (("LaunchCondition", f"missing, expected {condition}")
                for condition in LAUNCH_CONDITIONS if condition not in conditions)


def always_installed(tables):
    """The components that every installation has."""
    features = {row["Feature"]: row for row in tables["Feature"]}
    conditions = {row["Feature_"] for row in tables["Condition"]}

    def fixed(feature):
        row = features[feature]
        parent = row["Feature_Parent"]
        return (row["Level"] == "1" and int(row["Attributes"]) & DISALLOW_ABSENT and feature not in conditions
                and (not parent or fixed(parent)))

    fixed_ones = {row["Component_"] for row in tables["FeatureComponents"] if fixed(row["Feature_"])}
    return {row["Component"]: row for row in tables["Component"]
            if row["Component"] in fixed_ones and not row["Condition"]}


def check_files(tables):
    """The package's platform, and the files that the actions name."""
    platform = tables["Template"][0]["Template"].partition(";")[0]
    if platform != "x64":
        yield "summary information", f"a package for {platform or 'no platform'}, expected x64"
    always, components = always_installed(tables), {row["Component"]: row for row in tables["Component"]}
    files = {row["FileName"].split("|")[-1]: row for row in tables["File"]
             if components[row["Component_"]]["Directory_"] == "INSTALLFOLDER"}
    for name in FILES:
        if name not in files:
            yield f"File {name}", "missing, expected in INSTALLFOLDER"
        elif files[name]["Component_"] not in always:
            yield f"File {name}", "not always installed, expected in a feature that cannot be deselected"
    if SUITE_PROGRAM in files:
        component = components[files[SUITE_PROGRAM]["Component_"]]
        if (component["ComponentId"], component["KeyPath"]) != (SUITE, files[SUITE_PROGRAM]["File"]):
            yield f"Component {component['Component']}", f"expected {SUITE} with the key path {SUITE_PROGRAM}"


def check_searches(tables):
    """The searches for the installed version, and the value in which this one stores its version."""
    signatures = {row["Property"]: row["Signature_"] for row in tables["AppSearch"]}
    searches = {row["Signature_"]: row for row in tables["CompLocator"] + tables["RegLocator"]}
    folder, key = (searches.get(signatures.get(name), {}) for name in ("QBL_INSTALLED_FOLDER", "INSTALLED_APP_VERSION"))
    if (folder.get("ComponentId"), folder.get("Type")) != (SUITE, "0"):
        yield "AppSearch QBL_INSTALLED_FOLDER", f"another search or none, expected the directory of {SUITE}"
    if (key.get("Root"), key.get("Type")) != ("2", "18"):
        yield "AppSearch INSTALLED_APP_VERSION", "another search or none, expected a value of HKLM, 64-bit"
        return
    always = always_installed(tables)
    written = [row for row in tables["Registry"] if row["Value"] == "[ProductVersion]" and row["Component_"] in always
               and all(row[column] == key[column] for column in ("Root", "Key", "Name"))]
    if not any(int(always[row["Component_"]]["Attributes"]) & COMPONENT_64_BIT for row in written):
        problem = f"no value {key['Name']}, expected [ProductVersion] in a 64-bit component that is always installed"
        yield f"Registry {key['Key']}", problem


def findings(tables, exports, places):
    """The distinct findings in a package's tables, as (where, what is wrong and expected). places: see documented()."""
    found = [*check_actions(tables, exports, {action: row for rows in places for action, row in rows.items()})]
    for rows in places:
        found += check_sequence(tables, rows)
    for check in check_folder, check_properties, check_files, check_searches:
        found += check(tables)
    return list(dict.fromkeys(found))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("packages", metavar="PACKAGE", nargs="+", help="an .msi file")
    packages = parser.parse_args().packages
    try:
        documents = documented()
        lines = [f"{package}: {where}: {what}"
                 for package in packages for where, what in findings(read(package), *documents)]
    except (OSError, Unreadable) as error:
        parser.exit(2, f"{error}\n")
    for line in lines:
        print(line)
    sys.exit(1 if lines else 0)


if __name__ == "__main__":
    main()
