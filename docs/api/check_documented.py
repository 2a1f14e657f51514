#!/usr/bin/env python3
"""Fails when a public declaration of the API reference has no documentation.

Doxygen's own warnings leave out constructors, destructors and enumerators; this check reads the
XML output of the same run and demands a comment on every public or protected member of every
class, every member of a namespace or header (functions, variables, type aliases, enumerations and
their values, macros), and every class itself. Deleted functions need none.

Usage: check_documented.py XML_DIR
"""
import os
import sys
import xml.etree.ElementTree as ET


def has_text(element):
    return element is not None and "".join(element.itertext()).strip() != ""


def documented(element):
    return has_text(element.find("briefdescription")) or has_text(
        element.find("detaileddescription"))


def where(element):
    location = element.find("location")
    if location is None:
        return "?"
    return "%s:%s" % (location.get("file"), location.get("line", location.get("bodystart", "?")))


def main():
    if len(sys.argv) != 2:
        print(__doc__)
        return 2
    xml_dir = sys.argv[1]
    index = ET.parse(os.path.join(xml_dir, "index.xml")).getroot()
    problems = set()
    seen_members = set()
    checked = 0
    for compound in index.findall("compound"):
        kind = compound.get("kind")
        if kind not in ("class", "struct", "union", "namespace", "file"):
            continue
        tree = ET.parse(os.path.join(xml_dir, compound.get("refid") + ".xml")).getroot()
        for definition in tree.findall("compounddef"):
            name = definition.findtext("compoundname")
            if kind in ("class", "struct", "union"):
                if definition.get("prot") == "private":
                    continue
                checked += 1
                if not documented(definition):
                    problems.add("%s: %s %s has no documentation" % (where(definition), kind, name))
            for section in definition.findall("sectiondef"):
                section_kind = section.get("kind")
                if section_kind.startswith("private") or section_kind == "friend":
                    continue
                for member in section.findall("memberdef"):
                    if member.get("prot") == "private" or member.get("id") in seen_members:
                        continue
                    seen_members.add(member.get("id"))
                    args = (member.findtext("argsstring") or "").replace(" ", "")
                    if args.endswith("=delete"):
                        continue
                    checked += 1
                    label = "%s::%s" % (name, member.findtext("name"))
                    if not documented(member):
                        problems.add("%s: %s %s%s has no documentation" %
                                     (where(member), member.get("kind"), label,
                                      member.findtext("argsstring") or ""))
                    for value in member.findall("enumvalue"):
                        checked += 1
                        if not documented(value):
                            problems.add("%s: enumerator %s::%s has no documentation" %
                                         (where(member), label, value.findtext("name")))
    for problem in sorted(problems):
        print(problem)
    if problems:
        print("%d undocumented public declarations" % len(problems))
        return 1
    print("every public declaration is documented (%d checked)" % checked)
    return 0


if __name__ == "__main__":
    sys.exit(main())
