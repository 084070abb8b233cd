#!/usr/bin/env python3
"""Builds a package from WiX 4 sources with wixl and msibuild.

wixl reads an older schema, drops what it does not know (with a warning at most) and supports neither rollback actions nor
OnExit. So files, folders, features and properties go to wixl in its own form, and the rows of the actions are written into
its package afterwards. It is an error if an element or attribute is not in the list below, an action has no place, or a
reference has no target.
"""

import argparse
import os
import re
import subprocess
import tempfile
from pathlib import Path
from xml.etree import ElementTree
from xml.parsers import expat

NAMESPACE = "http://schemas.microsoft.com/wix/2006/wi"
YES_NO = "=yes|no"

# The elements: attributes ("!" marks required ones, "=" lists the accepted values), then ">" and the allowed children.
SCHEMA = {
    "Wix": "xmlns!=http://wixtoolset.org/schemas/v4/wxs > Package Fragment",
    "Package": "Name! Manufacturer! Version! UpgradeCode! ProductCode! Language! Codepage!=65001 Scope!=perMachine"
    " > Media Property StandardDirectory Feature CustomActionRef",
    "Fragment": "Id! > Binary CustomAction CustomActionRef SetProperty Property Upgrade Launch InstallExecuteSequence",
    "Media": f"Id! Cabinet! EmbedCab{YES_NO}",
    "StandardDirectory": "Id! > Directory",
    "Directory": "Id! Name! > Directory Component",
    "Component": f"Id! Guid! Bitness!=always64 NeverOverwrite{YES_NO} > File RegistryValue",
    "File": f"Id! Name! Source! KeyPath{YES_NO}",
    "RegistryValue": f"Root!=HKLM|HKCU Key! Name! Type!=string Value! KeyPath{YES_NO}",
    "Feature": f"Id! Title! Level! AllowAbsent{YES_NO} > ComponentRef",
    "ComponentRef": "Id!",
    "Property": f"Id! Value Secure{YES_NO} > RegistrySearch ComponentSearch",
    "RegistrySearch": "Id! Root!=HKLM|HKCU Key! Name! Type!=raw Bitness!=always64",
    "ComponentSearch": "Id! Guid! Type!=directory",
    "Binary": "Id! SourceFile!",
    "CustomAction": f"Id! BinaryRef DllEntry Error Execute=immediate|deferred|rollback Impersonate{YES_NO}"
    " Return=check|ignore",
    "CustomActionRef": "Id!",
    "SetProperty": "Id! Action! Value! Before After Condition Sequence!=execute",
    "Upgrade": "Id! > UpgradeVersion",
    "UpgradeVersion": f"Property! Minimum! Maximum IncludeMinimum!{YES_NO} IncludeMaximum{YES_NO} OnlyDetect!{YES_NO}",
    "Launch": "Condition! Message!",
    "InstallExecuteSequence": "> Custom InstallExecute RemoveExistingProducts",
    "Custom": "Action! Before After OnExit=success|cancel|error|suspend Condition",
    "InstallExecute": "Before After Condition",
    "RemoveExistingProducts": "Before After Condition",
}
INSTRUCTIONS = "<?define NAME = TEXT ?>, <?foreach NAME in A;B;C ?> ... <?endforeach?>; $(var.NAME) in attributes"

# The sequence numbers of the standard actions, before and after which a package's actions are placed.
STANDARD_ACTIONS = {
    "FindRelatedProducts": 25, "AppSearch": 50, "LaunchConditions": 100, "ValidateProductID": 700,
    "CostInitialize": 800, "FileCost": 900, "CostFinalize": 1000, "MigrateFeatureStates": 1200, "InstallValidate": 1400,
    "InstallInitialize": 1500, "ProcessComponents": 1600, "UnpublishFeatures": 1800, "RemoveRegistryValues": 2600,
    "RemoveFiles": 3500, "InstallFiles": 4000, "WriteRegistryValues": 5000, "RegisterUser": 6000,
    "RegisterProduct": 6100, "PublishFeatures": 6300, "PublishProduct": 6400, "InstallFinalize": 6600,
}
# Elements passed on to wixl with the same attributes; table_changes does the rest.
FOR_WIXL = ("Media", "Binary", "Property", "RegistrySearch", "StandardDirectory", "Directory", "Component", "File",
            "RegistryValue", "Feature", "ComponentRef")
ENDS = {"success": -1, "cancel": -2, "error": -3, "suspend": -4}

# An action's type is the sum of these.
DLL_FUNCTION, ERROR, SET_PROPERTY = 1, 19, 51
IGNORE_RESULT, IN_SCRIPT, ROLLBACK, NO_IMPERSONATION = 64, 1024, 256, 2048


class SourceError(Exception):
    def __init__(self, node, message):
        super().__init__(f"{node.place}: {message}")


class Element:
    def __init__(self, place, name, attributes):
        self.place, self.name, self.attributes, self.children = place, name, attributes, []

    def get(self, attribute, default=None):
        return self.attributes.get(attribute, default)

    def every(self, *names):
        """The descendants with one of these names, in document order."""
        for child in self.children:
            if child.name in names:
                yield child
            yield from child.every(*names)


class Instruction:
    def __init__(self, place, name, text):
        self.place, self.name, self.text = place, name, text.strip()


def read(path):
    """The root element of a source, not yet expanded."""
    parser = expat.ParserCreate()
    stack = [Element(path, "", {})]

    def place():
        return f"{path}:{parser.CurrentLineNumber}"

    def start(name, attributes):
        stack.append(Element(place(), name, attributes))
        stack[-2].children.append(stack[-1])

    def text(characters):
        if characters.strip():
            raise SourceError(stack[-1], f"text is not understood: {characters.strip()}")

    parser.StartElementHandler = start
    parser.EndElementHandler = lambda name: stack.pop()
    parser.CharacterDataHandler = text
    parser.ProcessingInstructionHandler = lambda *parts: stack[-1].children.append(Instruction(place(), *parts))
    try:
        parser.Parse(Path(path).read_bytes(), True)
    except expat.ExpatError as error:
        raise SystemExit(f"{path}:{error.lineno}: {expat.ErrorString(error.code)}") from error
    return stack[0].children[-1]


def expand_text(node, text, variables):
    def value(found):
        if found[1] not in variables:
            raise SourceError(node, f"the variable {found[1]} has no value")
        return variables[found[1]]

    return re.sub(r"\$\(var\.(\w+)\)", value, text)


def expand(nodes, variables):
    """The elements among these nodes, after executing the instructions and replacing the variables."""
    nodes, expanded = list(nodes), []
    while nodes:
        node = nodes.pop(0)
        if isinstance(node, Element):
            attributes = {name: expand_text(node, text, variables) for name, text in node.attributes.items()}
            element = Element(node.place, node.name, attributes)
            element.children = expand(node.children, variables)
            expanded.append(element)
        elif node.name == "define":
            name, _, text = node.text.partition("=")
            variables[name.strip()] = expand_text(node, text.strip(), variables)
        elif node.name == "foreach":
            name, _, values = node.text.partition(" in ")
            end = next((i for i, other in enumerate(nodes) if other.name == "endforeach"), None)
            if end is None or any(other.name == "foreach" for other in nodes[:end]):
                raise SourceError(node, "foreach needs an endforeach at the same level")
            for value in expand_text(node, values.strip(), variables).split(";"):
                expanded += expand(nodes[:end], {**variables, name.strip(): value})
            del nodes[: end + 1]
        elif node.name != "xml":
            raise SourceError(node, f"the instruction {node.name} is not understood")
    return expanded


def check(element, allowed=("Wix",)):
    """Raises SourceError for anything that is not in the schema."""
    if element.name not in allowed:
        raise SourceError(element, f"the element {element.name} is not understood here")
    attributes, _, children = SCHEMA[element.name].partition(">")
    known = {re.match(r"\w+", entry)[0]: entry for entry in attributes.split()}
    for name, value in element.attributes.items():
        if name not in known:
            raise SourceError(element, f"the attribute {name} of {element.name} is not understood")
        _, listed, values = known[name].partition("=")
        if listed and value not in values.split("|"):
            raise SourceError(element, f'{name}="{value}" of {element.name} is not understood: {values}')
    for name, entry in known.items():
        if "!" in entry and name not in element.attributes:
            raise SourceError(element, f"{element.name} needs the attribute {name}")
    for child in element.children:
        check(child, children.split())


def link(roots):
    """The package and every fragment that it refers to, as the children of a nameless element."""
    sections = [section for root in roots for section in root.children]
    packages = [section for section in sections if section.name == "Package"]
    if len(packages) != 1:
        raise SystemExit(f"the sources must have one Package, not {len(packages)}")
    homes = {}
    for section in sections:
        for element in section.every("CustomAction", "SetProperty", "Property", "Binary"):
            symbol = element.get("Action") or element.get("Id")
            if symbol in homes.setdefault(element.name, {}):
                raise SourceError(element, f"{symbol} is defined twice")
            homes[element.name][symbol] = section
    linked = Element("", "", {})
    linked.children = packages
    for reference in linked.every("CustomActionRef"):
        home = homes["CustomAction"].get(reference.get("Id"))
        if home is None:
            raise SourceError(reference, f"there is no action {reference.get('Id')}")
        if home not in linked.children:
            linked.children.append(home)
    return linked


def action_rows(linked):
    """The rows of the CustomAction table: {action: (type, source, target)}."""
    binaries = {binary.get("Id") for binary in linked.every("Binary")}
    rows = {}
    for element in linked.every("CustomAction", "SetProperty"):
        if element.name == "SetProperty":
            rows[element.get("Action")] = (SET_PROPERTY, element.get("Id"), element.get("Value"))
            continue
        execute = element.get("Execute", "immediate")
        kind = IGNORE_RESULT if element.get("Return") == "ignore" else 0
        if execute != "immediate":
            kind += IN_SCRIPT + (ROLLBACK if execute == "rollback" else 0)
            kind += NO_IMPERSONATION if element.get("Impersonate") == "no" else 0
        elif "Impersonate" in element.attributes:
            raise SourceError(element, "an immediate action always runs as the user: no Impersonate")
        if element.get("BinaryRef") in binaries and element.get("DllEntry"):
            rows[element.get("Id")] = (kind + DLL_FUNCTION, element.get("BinaryRef"), element.get("DllEntry"))
        elif element.get("Error") and not kind and "BinaryRef" not in element.attributes:
            rows[element.get("Id")] = (ERROR, "", element.get("Error"))
        else:
            raise SourceError(element, "an action is a DllEntry of a Binary that is there, or an Error")
    return rows


def sequence_rows(linked, actions):
    """The rows of the InstallExecuteSequence table: {action: (condition, number)}."""
    placed, before, after, numbers = {}, {}, {}, {}
    for element in linked.every("Custom", "SetProperty", "InstallExecute", "RemoveExistingProducts"):
        action = element.get("Action", element.name)
        places = [place for place in ("Before", "After", "OnExit") if place in element.attributes]
        if element.name == "Custom" and action not in actions:
            raise SourceError(element, f"there is no action {action}")
        if action in placed or len(places) != 1:
            raise SourceError(element, f"{action} must have one place, given by one of Before, After and OnExit")
        placed[action] = element
        if places == ["OnExit"]:
            numbers[action] = ENDS[element.get("OnExit")]
        else:
            anchors = before if places == ["Before"] else after
            anchors.setdefault(element.get(places[0]), []).append(action)

    def around(action, anchors_of):
        return [other for anchor in anchors_of.get(action, []) for other in chain(anchor)]

    def chain(action):
        return around(action, before) + [action] + around(action, after)

    for standard, number in STANDARD_ACTIONS.items():
        ahead, behind = around(standard, before), around(standard, after)
        numbers.update({action: number - len(ahead) + i for i, action in enumerate(ahead)})
        numbers.update({action: number + 1 + i for i, action in enumerate(behind)})
    taken = dict.fromkeys(STANDARD_ACTIONS.values())
    for action, element in placed.items():
        if action not in numbers:
            raise SourceError(element, f"the place of {action} leads to no standard action")
        if numbers[action] in taken:
            raise SourceError(element, f"{action} has the place of another action: {numbers[action]}")
        taken[numbers[action]] = action
    return {action: (placed[action].get("Condition", ""), numbers[action]) for action in placed}


def read_conditions(path):
    """{action: condition} from a file with lines "ACTION CONDITION", each below a comment ("#") with its reason."""
    conditions, reason = {}, False
    for number, line in enumerate(Path(path).read_text(encoding="utf-8").splitlines(), 1):
        if line.strip() and not line.startswith("#"):
            if not reason:
                raise SystemExit(f"{path}:{number}: a condition needs a reason")
            action, _, condition = line.partition(" ")
            conditions[action] = condition.strip()
        reason = line.startswith("#")
    return conditions


def tables(sources, variables, conditions):
    """The linked package, and the rows of its CustomAction and InstallExecuteSequence tables."""
    roots = [expand([read(source)], dict(variables))[0] for source in sources]
    for root in roots:
        check(root)
    linked = link(roots)
    actions = action_rows(linked)
    sequence = sequence_rows(linked, actions)
    for action, added in conditions.items():
        if action not in sequence:
            raise SystemExit(f"there is no action {action} to add a condition to")
        condition, number = sequence[action]
        sequence[action] = (f"({condition}) AND {added}" if condition else added, number)
    return linked, actions, sequence


def wixl_source(linked):
    """The source for wixl, in its own schema."""
    package = linked.children[0]
    product = ElementTree.Element("Product", {"Id": package.get("ProductCode")})
    for name in ("Name", "Manufacturer", "Version", "UpgradeCode", "Language"):
        product.set(name, package.get(name))
    ElementTree.SubElement(product, "Package", InstallScope="perMachine", InstallerVersion="500", Compressed="yes")

    def has_row(prop):
        return "Value" in prop.attributes or any(prop.every("RegistrySearch"))

    def add(element, parent):
        if element.name == "Launch":
            ElementTree.SubElement(parent, "Condition", Message=element.get("Message")).text = element.get("Condition")
            return
        if element.name not in FOR_WIXL or (element.name == "Property" and not has_row(element)):
            return
        if element.name == "StandardDirectory":
            parent = ElementTree.SubElement(parent, "Directory", Id="TARGETDIR", Name="SourceDir")
        copy = ElementTree.SubElement(parent, element.name.removeprefix("Standard"))
        for name, value in element.attributes.items():
            if name == "Bitness":
                copy.set("Win64", "yes")
            elif name not in ("Secure", "AllowAbsent", "NeverOverwrite"):  # see table_changes
                copy.set(name, value)
        for child in element.children:
            add(child, copy)

    for section in linked.children:
        for child in section.children:
            add(child, product)
    root = ElementTree.Element("Wix", xmlns=NAMESPACE)
    root.append(product)
    return ElementTree.tostring(root, encoding="utf-8", xml_declaration=True)


def table_changes(linked, actions, sequence):
    """Statements for msibuild that add what wixl does not support."""
    secure = [prop.get("Property") for prop in linked.every("UpgradeVersion")]
    secure += [prop.get("Id") for prop in linked.every("Property") if prop.get("Secure") == "yes"]
    statements = [
        "CREATE TABLE `CompLocator` (`Signature_` CHAR(72) NOT NULL, `ComponentId` CHAR(38) NOT NULL, `Type` SHORT"
        " PRIMARY KEY `Signature_`)",
    ]

    def insert(table, **row):
        if any("'" in str(value) for value in row.values()):
            raise SystemExit(f"msibuild's statements cannot contain an apostrophe: {row}")
        columns = ", ".join(f"`{column}`" for column in row)
        values = ", ".join(f"'{value}'" if isinstance(value, str) else str(value) for value in row.values())
        statements.append(f"INSERT INTO `{table}` ({columns}) VALUES ({values})")

    for action, (kind, source, target) in actions.items():
        insert("CustomAction", Action=action, Type=kind, Source=source, Target=target)
    for action, (condition, number) in sequence.items():
        insert("InstallExecuteSequence", Action=action, Condition=condition, Sequence=number)
    insert("Property", Property="SecureCustomProperties", Value=";".join(secure))
    for table in ("InstallExecuteSequence", "InstallUISequence"):
        for action in ("FindRelatedProducts", "MigrateFeatureStates"):
            insert(table, Action=action, Sequence=STANDARD_ACTIONS[action])
    for upgrade in linked.every("Upgrade"):
        for version in upgrade.every("UpgradeVersion"):
            flags = {"OnlyDetect": 2, "IncludeMinimum": 256, "IncludeMaximum": 512}
            attributes = sum(flag for name, flag in flags.items() if version.get(name) == "yes")
            insert("Upgrade", UpgradeCode=upgrade.get("Id"), VersionMin=version.get("Minimum"),
                   VersionMax=version.get("Maximum", ""), Attributes=attributes, ActionProperty=version.get("Property"))
    for prop in linked.every("Property"):
        for search in prop.every("ComponentSearch"):
            insert("CompLocator", Signature_=search.get("Id"), ComponentId=search.get("Guid"), Type=0)
            insert("AppSearch", Property=prop.get("Id"), Signature_=search.get("Id"))
    for feature in linked.every("Feature"):
        if feature.get("AllowAbsent") == "no":
            statements.append(f"UPDATE `Feature` SET `Attributes` = 16 WHERE `Feature` = '{feature.get('Id')}'")
    for component in linked.every("Component"):
        if component.get("NeverOverwrite") == "yes":
            key_path = next(child for child in component.children if child.get("KeyPath") == "yes")
            attributes = 256 + 128 + (4 if key_path.name == "RegistryValue" else 0)
            statements.append(
                f"UPDATE `Component` SET `Attributes` = {attributes} WHERE `Component` = '{component.get('Id')}'")
    return statements


def build(output, linked, actions, sequence):
    """Runs wixl and msibuild. wixl finds files only below the current folder."""
    statements = table_changes(linked, actions, sequence)  # what they refuse leaves no package
    with tempfile.TemporaryDirectory() as folder:
        source, code_page = Path(folder, "package.wxs"), Path(folder, "_ForceCodepage.idt")
        source.write_bytes(wixl_source(linked))
        code_page.write_text(f"\r\n\r\n{linked.children[0].get('Codepage')}\t_ForceCodepage\r\n", newline="")
        strict = {**os.environ, "G_DEBUG": "fatal-warnings"}  # wixl only warns about what it does not know
        subprocess.run(["wixl", "--arch", "x64", "--output", output, source], env=strict, check=True)
        arguments = ["-i", code_page]
        for statement in statements:
            arguments += ["-q", statement]
        subprocess.run(["msibuild", output, *arguments], check=True)


def main():
    elements = "\n".join(f"  {name}: {entry}" for name, entry in SCHEMA.items())
    parser = argparse.ArgumentParser(
        description=__doc__,
        epilog=f'Elements, each with its attributes > its children ("!": required):\n{elements}\n'
        f"and {INSTRUCTIONS}",
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", nargs="+", help="a Package and the fragments that it refers to")
    parser.add_argument("-d", metavar="NAME=VALUE", action="append", default=[], help="a variable of the sources")
    parser.add_argument("-o", metavar="FILE", required=True, help="the package to write")
    parser.add_argument("--conditions", metavar="FILE", help="conditions to add: lines ACTION CONDITION")
    options = parser.parse_args()
    variables = dict(definition.split("=", 1) for definition in options.d)
    conditions = read_conditions(options.conditions) if options.conditions else {}
    try:
        build(options.o, *tables(options.sources, variables, conditions))
    except SourceError as error:
        raise SystemExit(str(error)) from error
    except subprocess.CalledProcessError as error:
        Path(options.o).unlink(missing_ok=True)
        raise SystemExit(f"{error.cmd[0]} failed: {error.returncode}") from error


if __name__ == "__main__":
    main()
