"""Shows the library's objects by value in gdb.

  (gdb) source scripts/gdb/vlt_printers.py
  (gdb) print name                     a CFStringRef, CFNumberRef, CFArrayRef, CFDictionaryRef, ...
  (gdb) print event->reply             an AEDesc, also a list, record or event
  (gdb) print $vlt(value)              a CFTypeRef or void*, shown as the object that it points to

Only memory is read and no function is called, so it works with core files, too. Containers are shown
to a depth of 8, and 200 items of each.
"""
import struct

import gdb

MOST_ITEMS = 200
MOST_DEPTH = 8
MOST_BYTES = 4096

# The number of a class (HostTypeID) and its type.
CLASSES = {2: "__CFString", 3: "__CFNumber", 4: "__CFBoolean", 5: "__CFData", 6: "__CFDate",
           7: "__CFArray", 8: "__CFDictionary"}

# Types of descriptors that are one number, as struct has them.
NUMBERS = {b"shor": "h", b"ushr": "H", b"long": "i", b"magn": "I", b"comp": "q", b"ucom": "Q",
           b"sing": "f", b"doub": "d"}


def memory(address, size):
    return bytes(gdb.selected_inferior().read_memory(address, min(size, MOST_BYTES)))


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n") + '"'


def four_characters(number):
    text = int(number).to_bytes(4, "big")
    return "'" + text.decode("mac_roman") + "'" if min(text) >= 0x20 else f"0x{int(number):08x}"


def order():
    return "big" if "big" in gdb.execute("show endian", to_string=True) else "little"


# Counted objects ---------------------------------------------------------------------------------

def string_text(string):
    length = int(string["length"])
    is_wide = bool(string["isWide"])
    if string["isLiteral"]:
        address = int(string["literalText"])
    else:
        address = int(string["firstUnits"].address)
    if is_wide:
        return quoted(memory(address, 2 * length).decode("utf-16-" + order()[0] + "e", "replace"))
    return quoted(memory(address, length).decode("latin-1"))


def number_text(number):
    form = int(number["form"])
    value = number["value"]
    if form == int(gdb.parse_and_eval("(int)__CFNumber::Form::kUInt64")):
        return str(int(value["unsigned64"]))
    if form == 5:
        return str(float(value["real32"]))
    if form == 6:
        return str(float(value["real64"]))
    return str(int(value["integer"]))


def array_text(array, depth):
    count = int(array["count"])
    items = [object_text(array["values"][i], depth + 1) for i in range(min(count, MOST_ITEMS))]
    return "[" + ", ".join(items + ["..."] * (count > MOST_ITEMS)) + "]"


def dictionary_text(dictionary, depth):
    items = []
    for i in range(int(dictionary["used"])):
        pair = dictionary["pairs"][i]
        if int(pair["key"]) == 0:
            continue  # removed
        if len(items) == MOST_ITEMS:
            items.append("...")
            break
        items.append(f"{object_text(pair['key'], depth + 1)} = {object_text(pair['value'], depth + 1)}")
    return "{" + ", ".join(items) + "}"


def object_text(pointer, depth=0):
    """Of a pointer of any type to a counted object."""
    address = int(pointer)
    if address == 0:
        return "null"
    if depth > MOST_DEPTH:
        return "..."
    head = pointer.cast(gdb.lookup_type("HostCFObject").pointer()).dereference()
    name = CLASSES.get(int(head["typeID"]))
    if name is None:
        return f"<object of class {int(head['typeID'])} at {address:#x}>"
    value = pointer.cast(gdb.lookup_type(name).pointer()).dereference()
    if name == "__CFString":
        return string_text(value)
    if name == "__CFNumber":
        return number_text(value)
    if name == "__CFBoolean":
        return "true" if value["is"] else "false"
    if name == "__CFDate":
        return f"{float(value['time'])} s after 2001-01-01"
    if name == "__CFData":
        return "<" + memory(int(value["bytes"]), int(value["length"])).hex() + ">"
    return array_text(value, depth) if name == "__CFArray" else dictionary_text(value, depth)


# Descriptors --------------------------------------------------------------------------------------

def items_text(items, depth):
    block = items["block"]
    if int(block) == 0:
        return []
    first = (block + 1).cast(gdb.lookup_type("HostAEItem").pointer())
    count = int(block["count"])
    texts = [item_text(first[i], depth + 1) for i in range(min(count, MOST_ITEMS))]
    return texts + ["..."] * (count > MOST_ITEMS)


def value_text(kind, data):
    if kind == b"null":
        return "null"
    number = NUMBERS.get(kind)
    if number is not None and len(data) == struct.calcsize(number):
        sign = ">" if order() == "big" else "<"
        return f"{struct.unpack(sign + number, data)[0]:.15g}" if number in "fd" else \
            str(struct.unpack(sign + number, data)[0])
    if kind == b"bool" and len(data) == 1:
        return "true" if data[0] else "false"
    if kind in (b"type", b"enum", b"keyw", b"prop", b"sign") and len(data) == 4:
        return four_characters(int.from_bytes(data, order()))
    if kind == b"TEXT":
        return quoted(data.decode("mac_roman"))
    if kind == b"utf8":
        return quoted(data.decode("utf-8", "replace"))
    return "<" + data.hex() + ">"


def item_text(item, depth=0, with_key=True):
    kind = int(item["type"]).to_bytes(4, "big")
    form = int(item["form"])
    key = int(item["key"])
    start = f"{four_characters(key)}: " if with_key and key != 0x2A2A2A2A else ""
    if depth > MOST_DEPTH:
        return start + "..."
    if form == 0:
        size = int(item["size"])
        is_inline = size <= item["inlineBytes"].type.sizeof
        address = int(item["inlineBytes"].address if is_inline else item["run"]["bytes"])
        return f"{start}{kind.decode('mac_roman')} {value_text(kind, memory(address, size))}"
    if form == 3:
        event = item["event"].dereference()
        fields = event["fields"]
        inside = items_text(event["attributes"], depth) + items_text(event["parameters"], depth)
        head = f"{four_characters(fields['eventClass'])} {four_characters(fields['eventID'])}"
        return f"{start}aevt {head} {{{', '.join(inside)}}}"
    brackets = "[]" if form == 1 else "{}"
    inside = ", ".join(items_text(item["items"], depth))
    return f"{start}{kind.decode('mac_roman')} {brackets[0]}{inside}{brackets[1]}"


def descriptor_text(descriptor):
    kind = int(descriptor["descriptorType"])
    number = int(descriptor["dataHandle"])
    if kind == 0x6E756C6C:
        return "null"
    is_wide = descriptor["dataHandle"].type.sizeof >= 8
    shift, index_bits, chunk_slots = (32 if is_wide else 20), (24 if is_wide else 20), 256
    index = number & ((1 << shift) - 1)
    chunk = None
    if index >> index_bits == 0:
        chunk = gdb.parse_and_eval("gHostDescChunks")[index // chunk_slots]["_M_b"]["_M_p"]
    if chunk is None or int(chunk) == 0:
        return f"{four_characters(kind)} <stale: {number:#x}>"
    slot = chunk[index % chunk_slots]
    if int(slot["word"]["_M_i"]) != (number >> shift) << 1 | 1:
        return f"{four_characters(kind)} <stale: {number:#x}>"
    return item_text(slot["item"], with_key=False)


# Registration -------------------------------------------------------------------------------------

class Printer:
    def __init__(self, text, value):
        self.text, self.value = text, value

    def to_string(self):
        try:
            return self.text(self.value)
        except gdb.MemoryError as error:
            return f"<{error}>"


def find_printer(value):
    plain = value.type.strip_typedefs().unqualified()
    if plain.code == gdb.TYPE_CODE_PTR:
        target = plain.target().strip_typedefs().unqualified()
        if target.tag in CLASSES.values():
            return Printer(object_text, value)
    elif plain.tag == "AEDesc":
        return Printer(descriptor_text, value)
    elif plain.tag == "HostAEItem":
        return Printer(item_text, value)
    return None


class ShowObject(gdb.Function):
    """$vlt(POINTER): the counted object that a pointer of any type points to, as text."""

    def __init__(self):
        super().__init__("vlt")

    def invoke(self, pointer):
        return object_text(pointer)


gdb.pretty_printers.insert(0, find_printer)
ShowObject()
