#!/usr/bin/env python3
"""Writes the API reference (api/v1/kestapi.json and api/v1/kestapi.xml) from api/v1/openapi.json.

openapi.json is the one hand-edited description; the reference is derived from it so that the
two cannot drift apart. Run it after every change to openapi.json and commit all three files:

    python3 docs/make_kestapi.py            # from the service directory
"""

import json
import pathlib
import sys
import xml.etree.ElementTree as ET

HERE = pathlib.Path(__file__).resolve().parent / "api" / "v1"
METHODS = ("get", "post", "put", "delete", "patch")


def resolve(doc, node):
    while isinstance(node, dict) and "$ref" in node:
        target = doc
        for part in node["$ref"].lstrip("#/").split("/"):
            target = target[part]
        node = target
    return node


def type_name(doc, schema):
    """A short readable type: "string", "int64", "array of ObjectTrackEx", "Uuid"."""
    if not schema:
        return "any"
    if "$ref" in schema:
        return schema["$ref"].rsplit("/", 1)[1]
    if "allOf" in schema and len(schema["allOf"]) == 1:
        return type_name(doc, schema["allOf"][0])
    if "anyOf" in schema:
        return " or ".join(type_name(doc, s) for s in schema["anyOf"])
    kind = schema.get("type", "any")
    if kind == "array":
        return "array of " + type_name(doc, schema.get("items", {}))
    if kind == "integer":
        return schema.get("format", "integer")
    if kind == "number":
        return schema.get("format", "number")
    if kind == "string" and "enum" in schema:
        return "enum " + "|".join(repr(v) if v == "" else v for v in schema["enum"])
    return kind


def build(doc):
    groups = {tag["name"]: {"name": tag["name"], "description": tag.get("description", ""),
                            "functions": []} for tag in doc.get("tags", [])}
    for path, item in doc["paths"].items():
        for method in METHODS:
            op = item.get(method)
            if op is None:
                continue
            params = []
            for p in op.get("parameters", []):
                p = resolve(doc, p)
                params.append({"name": p["name"], "location": p["in"],
                               "type": type_name(doc, p.get("schema", {})),
                               "optional": not p.get("required", False),
                               "description": p.get("description", "")})
            body = op.get("requestBody")
            if body:
                for media, content in body.get("content", {}).items():
                    params.append({"name": "body", "location": "body (" + media + ")",
                                   "type": type_name(doc, content.get("schema", {})),
                                   "optional": not body.get("required", False),
                                   "description": body.get("description", "")})
            statuses = []
            result_type = "none"
            for code, response in op.get("responses", {}).items():
                response = resolve(doc, response)
                content = response.get("content", {})
                media = next(iter(content), None)
                rtype = type_name(doc, content[media].get("schema", {})) if media else "none"
                if code == "200":
                    result_type = rtype
                statuses.append({"code": int(code), "type": rtype,
                                 "description": response.get("description", "")})
            tag = (op.get("tags") or ["other"])[0]
            groups.setdefault(tag, {"name": tag, "description": "", "functions": []})
            groups[tag]["functions"].append({
                "name": op.get("operationId", method + " " + path),
                "method": method.upper(), "path": path, "summary": op.get("summary", ""),
                "description": op.get("description", ""), "params": params,
                "result": {"type": result_type, "statuses": statuses}})
    types = []
    for name, schema in doc.get("components", {}).get("schemas", {}).items():
        fields = [{"name": field, "type": type_name(doc, s),
                   "description": s.get("description", "")}
                  for field, s in schema.get("properties", {}).items()]
        types.append({"name": name, "type": type_name(doc, {k: v for k, v in schema.items()
                                                           if k != "properties"}),
                      "description": schema.get("description", ""), "fields": fields})
    return {"title": doc["info"]["title"], "version": doc["info"]["version"],
            "groups": [g for g in groups.values() if g["functions"]], "types": types}


def text_child(parent, tag, text, **attrs):
    child = ET.SubElement(parent, tag, {k: v for k, v in attrs.items()})
    child.text = text
    return child


def to_xml(ref):
    root = ET.Element("apidoc", {"title": ref["title"], "version": ref["version"]})
    groups = ET.SubElement(root, "groups")
    for g in ref["groups"]:
        group = ET.SubElement(groups, "group", {"name": g["name"]})
        text_child(group, "description", g["description"])
        functions = ET.SubElement(group, "functions")
        for f in g["functions"]:
            function = ET.SubElement(functions, "function",
                                     {"name": f["name"], "method": f["method"], "path": f["path"]})
            text_child(function, "summary", f["summary"])
            text_child(function, "description", f["description"])
            params = ET.SubElement(function, "params")
            for p in f["params"]:
                param = ET.SubElement(params, "param", {
                    "name": p["name"], "location": p["location"], "type": p["type"],
                    "optional": "true" if p["optional"] else "false"})
                text_child(param, "description", p["description"])
            result = ET.SubElement(function, "result", {"type": f["result"]["type"]})
            for s in f["result"]["statuses"]:
                text_child(result, "status", s["description"], code=str(s["code"]), type=s["type"])
    types = ET.SubElement(root, "types")
    for t in ref["types"]:
        type_ = ET.SubElement(types, "type", {"name": t["name"], "type": t["type"]})
        text_child(type_, "description", t["description"])
        for field in t["fields"]:
            text_child(type_, "field", field["description"], name=field["name"],
                       type=field["type"])
    ET.indent(root)
    return '<?xml version="1.0" encoding="UTF-8"?>\n' + ET.tostring(root, encoding="unicode") + "\n"


def main():
    doc = json.loads((HERE / "openapi.json").read_text(encoding="utf-8"))
    ref = build(doc)
    (HERE / "kestapi.json").write_text(json.dumps(ref, indent=2, ensure_ascii=False) + "\n",
                                       encoding="utf-8")
    (HERE / "kestapi.xml").write_text(to_xml(ref), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
