#!/usr/bin/env python3
"""Writes the golden frames beside this file: index.json, frames/*.bin, bus.json and bomb.b64.

Everything here is made with Python's json, zlib and base64 alone, so that the library's encoder and
decoder cannot agree on a mistake. Run it after changing a row and check in what it writes; zlib
versions may compress differently, which no test depends on.
"""

import base64
import json
import pathlib
import struct
import zlib

HERE = pathlib.Path(__file__).resolve().parent
ROWS = []
BUS = []
NOT_INFLATABLE = 1
NOT_JSON = 3


def indented(value, depth=0):
    """JSON as the bus writes it: four blanks, sorted keys, and a line break in empty containers."""
    pad = "    " * (depth + 1)
    end = "    " * depth
    if isinstance(value, dict):
        items = [json.dumps(k, ensure_ascii=False) + ": " + indented(value[k], depth + 1)
                 for k in sorted(value)]
        left, right = "{", "}"
    elif isinstance(value, list):
        items = [indented(item, depth + 1) for item in value]
        left, right = "[", "]"
    else:
        return json.dumps(value, ensure_ascii=False)
    body = "".join(",\n" * (i > 0) + pad + item for i, item in enumerate(items))
    return left + "\n" + (body + "\n" if items else "") + end + right + ("" if depth else "\n")


def packed(text, level=-1, declared=None):
    length = len(text) if declared is None else declared
    return struct.pack(">I", length) + zlib.compress(text, level)


def row(name, payload, header="[-REPLY-]", **expected):
    frame = header.encode() + b"\r\n" + str(len(payload)).encode() + b"\r\n" + payload
    (HERE / "frames" / f"{name}.bin").write_bytes(frame)
    ROWS.append({"name": name, **expected})


def written(name, envelope, classic=None):
    """A frame that the library writes as well: its JSON text is fixed to the byte.

    The frame is in the coding Light if the envelope is not what Classic says of it.
    """
    header = "[-REPLY-]" if "result" in envelope else "[-REQUEST-]"
    text = indented(classic or envelope).encode()
    compact = json.dumps(envelope, ensure_ascii=False, sort_keys=True, separators=(",", ":"))
    light = base64.b64encode(packed(compact.encode(), 0)).decode()
    payload = light.encode() if classic else base64.b64encode(packed(text))
    row(name, payload, header, envelope=envelope, written=True,
        json=text.decode(), compact=compact, light=light)


def read(name, payload, envelope):
    row(name, payload, envelope=envelope)


def refused(name, payload, fault, error):
    row(name, payload, fault=fault, error=error)


def request(operation, data):
    return {"operation": operation, "data": data}


def from_bus(name, envelope):
    """What the bus writes. The keys of "light" are in the order of the bus, and ids are made up."""
    BUS.append({"name": name, "classic": indented(envelope),
                "light": json.dumps(envelope, ensure_ascii=False, separators=(",", ":"))})


def reply(operation, data, code=0, description=""):
    return {"operation": operation, "data": data,
            "result": {"code": code, "description": description}}


def written_rows():
    plain = {"cnt": {"load": 0.42, "up": True}, "dt": "1700000000123", "nm": "host.box.load",
             "opt": 2, "p": "box", "uid": "kG2yYz5XbTtmYqvR7yk0rX1uVbU="}
    written("handshake", request("handshake", {"name": "a"}))
    written("handshake-transient",
            request("handshake", {"name": "a", "prompt": True, "transient": True}))
    written("handshake-features", request("handshake", {"features": True, "name": "me"}))
    written("sub-told", request("sub", {"now": True, "told": True, "wc": "room.*"}))
    written("sub-removals", request("sub", {"removals": True, "wc": "room.*"}))
    written("limited", request("sendMessage", {
        "limit": 3600000, "msg": "hi", "ops": 0, "r": "me"}))
    written("no-data", request("sub", {}))
    written("object", request("pub", plain))
    written("unicode", request("pub", dict(plain, cnt={
        "\u00e4\u00df": "Gr\u00fc\u00dfe \u4e16\u754c \U0001f680", "\u4e16": "\u2028\u00a0\ufeff"})))
    written("escapes", request("pub", dict(plain, cnt={
        "quote\"": "back\\slash", "control": "\b\f\n\r\t\u0000\u001b\u001f", "other": "/ \u007f"})))
    written("numbers", request("pub", dict(plain, cnt={
        "integers": [0, -1, 2147483648, 9007199254740991, -9007199254740991],
        "fractions": [0.1, -2.5, 1e-07, 1.7976931348623157e+308, 5e-324, 123456.789],
        "others": [True, False, None]})))
    written("large-numbers",
            request("pub", dict(plain, cnt={"ns": [9007199254740993, -1700000000123456789]})),
            request("pub", dict(plain, cnt={"ns": [9007199254740992, -1700000000123456800]})))
    written("nested", request("pub", dict(plain, cnt={
        "a": {"b": {"c": [[], {}, [1, [2, {"d": "e"}]]]}}, "empty": {}, "list": []})))
    written("long", request("rm", {"nms": ["host.box.net.%d" % i for i in range(300)]}))
    written("result", reply("loadObject", {"obj": plain}))
    written("error", reply("pub", {}, 2, "Incorrect request data"))
    written("storage-error", reply("", {}, 512, "Storage access error"))


def read_rows():
    envelope = reply("sub", {})
    text = indented(envelope).encode()
    plain = base64.b64encode(packed(text))
    read("no-result", base64.b64encode(packed(b'{"operation":"pub","data":{"x":1}}')),
         {"operation": "pub", "data": {"x": 1}})
    read("code-above-16-bits",
         base64.b64encode(packed(indented(reply("pub", {}, 0x10000)).encode())),
         reply("pub", {}, 0x10000))
    for level in (0, 1, 9):
        read(f"level-{level}", base64.b64encode(packed(text, level)), envelope)
    read("declared-too-small", base64.b64encode(packed(text, declared=1)), envelope)
    read("declared-nothing", base64.b64encode(packed(text, declared=0)), envelope)
    read("declared-too-large", base64.b64encode(packed(text, declared=1000000)), envelope)
    read("foreign-characters", b"\r\n" + b" *\x00\xff".join([plain[:9], plain[9:20], plain[20:]]),
         envelope)
    read("no-padding", plain.rstrip(b"="), envelope)
    read("bytes-behind-the-stream", base64.b64encode(packed(text) + b"rest"), envelope)
    read("compact", base64.b64encode(packed(json.dumps(envelope).encode())), envelope)
    read("array", base64.b64encode(packed(b"[1,2]")), {})


def refused_rows():
    text = indented(reply("sub", {})).encode()
    none = "illegal value"
    refused("cut", base64.b64encode(packed(text)[:-5]), NOT_INFLATABLE, none)
    refused("damaged", base64.b64encode(packed(text)[:-1] + b"\x00"), NOT_INFLATABLE, none)
    refused("not-base64", b"\xff\xfe***", NOT_INFLATABLE, none)
    refused("empty", b"", NOT_INFLATABLE, none)
    refused("length-only", base64.b64encode(struct.pack(">I", 7)), NOT_INFLATABLE, none)
    refused("plain-zlib", base64.b64encode(zlib.compress(text)), NOT_INFLATABLE, none)
    refused("plain-json", base64.b64encode(text), NOT_INFLATABLE, none)
    refused("huge-length", base64.b64encode(packed(text, declared=0xFFFFFFFF)), NOT_INFLATABLE,
            none)
    refused("truncated-json", base64.b64encode(packed(b'{"operation":"pub"')), NOT_JSON,
            "unterminated string")
    refused("no-container", base64.b64encode(packed(b'"text"')), NOT_JSON, none)
    refused("nothing-inside", base64.b64encode(packed(b"")), NOT_JSON, none)


def reply_from_bus(operation, data):
    return {"data": data, "operation": operation, "result": {"code": 0, "description": ""}}


def delivered(name, text, sender, time="<time>"):
    """A message that the bus delivers; its text is written as the rest of the envelope is."""
    def envelope(msg):
        return {"operation": "sendMessage", "data": {
            "dt": time, "msg": msg, "ops": 0, "s": sender, "r": "me", "uid": "<id>"}}
    compact = json.dumps(text, ensure_ascii=False, separators=(",", ":"))
    BUS.append({"name": name, "classic": indented(envelope(indented(text))),
                "light": json.dumps(envelope(compact), ensure_ascii=False, separators=(",", ":"))})


def told_rows():
    value = {"__context__": {"celsius": 12}, "__name__": "room.cellar", "__reason__": "sub"}
    delivered("plain", value, "thermometer", "1700000000123")
    delivered("now", dict(value, __stored__="now"), "thermometer", "1700000000123")
    delivered("changed", dict(value, __stored__="changed"), "thermometer", "1700000000123")
    delivered("removed", {"__name__": "room.cellar", "__reason__": "removed"}, "thermometer")
    delivered("told", {"__reason__": "told", "__sub__": "room.*"}, "me")


def bus_rows():
    features = ["clients", "limit", "now", "owners", "prompt", "removals", "told",
                "transient"]
    for channel in ("query", "message"):
        from_bus(f"features-{channel}", reply_from_bus("handshake", {
            "channel": channel, "features": features, "instance": "<id>"}))
    from_bus("no-features", reply_from_bus("handshake", {}))
    told_rows()


def main():
    (HERE / "frames").mkdir(exist_ok=True)
    for old in (HERE / "frames").glob("*.bin"):
        old.unlink()
    written_rows()
    read_rows()
    refused_rows()
    bus_rows()
    # 32 MB of zeros, which nobody must inflate.
    (HERE / "bomb.b64").write_bytes(base64.b64encode(packed(bytes(32 << 20), 9)))
    (HERE / "index.json").write_text(json.dumps(ROWS, indent=1) + "\n")
    (HERE / "bus.json").write_text(json.dumps(BUS, indent=1) + "\n")


if __name__ == "__main__":
    main()
