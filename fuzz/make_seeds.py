#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/: small, valid examples of each
input the fuzz targets take. The encodings are written out by hand from the
protocol's field numbers, so the seeds do not depend on the library."""

import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")

SENSOR_A = (0x1111, 0xA1)
SENSOR_B = (0x2222, 0xB2)
UNREGISTERED = (0x7777, 0x77)
LOOKUP_EVENT, ATTRIBUTE_EVENT = 768, 128
REPORT, JUMBO, RESPONSE, INFO, LOW_POWER = 0x21, 0x22, 0x20, 0x24, 0x31


# --- protobuf wire format -------------------------------------------------------
def varint(v):
    out = b""
    while True:
        b = v & 0x7F
        v >>= 7
        if v:
            out += bytes([b | 0x80])
        else:
            return out + bytes([b])


def tag(field, wire):
    return varint(field << 3 | wire)


def f_bytes(field, data):
    return tag(field, 2) + varint(len(data)) + data


def f_fixed64(field, v):
    return tag(field, 1) + struct.pack("<Q", v)


def f_fixed32(field, v):
    return tag(field, 5) + struct.pack("<I", v)


def f_float(field, v):
    return tag(field, 5) + struct.pack("<f", v)


def f_varint(field, v):
    return tag(field, 0) + varint(v)


def zigzag(v):
    return (v << 1) ^ (v >> 63)


def suid(s):
    return f_fixed64(1, s[0]) + f_fixed64(2, s[1])


def event_msg(s, events):
    """sns_client_event_msg: suid, then events of (msg_id, payload)."""
    out = f_bytes(1, suid(s)) if s is not None else b""
    for msg_id, payload in events:
        out += f_bytes(2, f_fixed32(1, msg_id) + f_fixed64(2, 123456789) + f_bytes(3, payload))
    return out


def suid_event(name, suids):
    return f_bytes(1, name.encode()) + b"".join(f_bytes(2, suid(s)) for s in suids)


def attr_value(elements):
    """sns_std_attr_value: elements of ('str'|'float'|'int'|'bool'|'nested', v)."""
    out = b""
    for kind, v in elements:
        if kind == "str":
            data = f_bytes(2, v.encode())
        elif kind == "float":
            data = f_float(3, v)
        elif kind == "int":
            data = f_varint(4, zigzag(v))
        elif kind == "bool":
            data = f_varint(5, int(v))
        else:
            data = f_bytes(1, attr_value(v))
        out += f_bytes(1, data)
    return out


def attr_event(attrs):
    return b"".join(f_bytes(1, f_varint(1, aid) + f_bytes(2, attr_value(v))) for aid, v in attrs)


SAMPLE_ATTRIBUTES = attr_event([
    (0, [("str", "heart_rate")]),
    (1, [("str", "seed-vendor")]),
    (2, [("str", "heart_rate")]),
    (3, [("float", 1.0), ("float", 5.0), ("float", 25.0)]),
    (4, [("nested", [("float", 0.0), ("float", 300.0)])]),
    (16, [("int", 1)]),
    (20, [("bool", True)]),
])


# --- channel packets ------------------------------------------------------------
def packet(msg_id, body, length=None):
    total = 6 + len(body)
    return struct.pack("<HHH", msg_id, 0, total if length is None else length) + body


def report(encoded, jumbo=False):
    body = bytes(9) + struct.pack("<I", len(encoded)) + encoded
    return packet(JUMBO if jumbo else REPORT, body)


def response(client_id=7, result=0):
    body = bytes(4) + struct.pack("<BQBBI", 1, client_id, 0, 1, result)
    return packet(RESPONSE, body)


def low_power(lps_id, session=0, total=0, shmem=0, error=0):
    return packet(LOW_POWER, struct.pack("<BBIHH", lps_id, session, total, shmem, error))


def stream(packets):
    """fuzz_channel_stream input: each packet as a 16-bit (length - 1) and its bytes."""
    return b"".join(struct.pack("<H", len(p) - 1) + p for p in packets)


# --- sensorstore ----------------------------------------------------------------
def channel_hash(name):
    return (0x1234 + sum(i * c for i, c in enumerate(name.encode()[:255]))) & 0xFFFFFFFF


def image(records, data_len=None):
    area = b"".join(struct.pack("<I", h) + p for h, p in records)
    header = struct.pack("<II", 8 + len(area) if data_len is None else data_len, 0)
    return header + area


def write_info_input(img, error=0):
    message = struct.pack("<BBIHH", 2, 0, len(img) - 8, 0, error)
    return message + img


# --- capture (pcapng as the library writes it) ------------------------------------
def pcapng_block(block_type, body):
    body += bytes(-len(body) % 4)
    return struct.pack("<II", block_type, 12 + len(body)) + body + struct.pack("<I", 12 + len(body))


def pcapng_option(code, value):
    return struct.pack("<HH", code, len(value)) + value + bytes(-len(value) % 4)


def capture(records):
    """records: (interface, epb_flags, timestamp_ns, bytes); interface 0 the channel."""
    out = pcapng_block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1) + bytes(4))
    for linktype, name in ((147, b"ductopkt_vorla_sensors"), (148, b"sensorstore")):
        out += pcapng_block(1, struct.pack("<HHI", linktype, 0, 65539) + pcapng_option(2, name) +
                            pcapng_option(9, b"\x09") + bytes(4))
    for interface, flags, ts, data in records:
        out += pcapng_block(6, struct.pack("<IIIII", interface, ts >> 32, ts & 0xFFFFFFFF, len(data), len(data)) +
                            data + bytes(-len(data) % 4) + pcapng_option(2, struct.pack("<I", flags)) + bytes(4))
    return out


# --- seeds ----------------------------------------------------------------------
def seeds():
    own = channel_hash("sensors")
    hr = event_msg(SENSOR_A, [(LOOKUP_EVENT, b"abc")])
    big = event_msg(SENSOR_B, [(1025, bytes(range(256)) * 16)])
    no_id = event_msg(None, [(1, b"x")])
    foreign = event_msg(UNREGISTERED, [(1, b"y")])
    split = report(hr)
    store = image([(own, report(hr, jumbo=True)), (0xDEADBEEF, report(foreign, jumbo=True)),
                   (own, report(no_id))])

    yield "channel_stream", "report", stream([report(hr)])
    yield "channel_stream", "jumbo", stream([report(big, jumbo=True)])
    yield "channel_stream", "mixed", stream([
        response(), report(hr), packet(INFO, b""), low_power(1, 3), low_power(0, 3),
        low_power(2, 0, 100, 4), report(foreign), report(no_id), packet(0x23, b"\x01\x02")])
    yield "channel_stream", "split", stream([split[:10], split[10:]])
    yield "channel_stream", "malformed", stream([
        report(hr)[:-2], packet(REPORT, bytes(9) + struct.pack("<I", 4000) + b"zz"),
        report(hr[:-1]), packet(REPORT, b"", length=3)])

    registry = event_msg((0xABABABABABABABAB,) * 2,
                         [(LOOKUP_EVENT, suid_event("registry", [(1, 2)]))])
    lookup = event_msg((0xABABABABABABABAB,) * 2,
                       [(LOOKUP_EVENT, suid_event("heart_rate", [SENSOR_A, SENSOR_B])),
                        (LOOKUP_EVENT, suid_event("health", [(3, 4)]))])
    attrs = event_msg(SENSOR_A, [(ATTRIBUTE_EVENT, SAMPLE_ATTRIBUTES)])
    yield "discovery_callbacks", "registry", registry
    yield "discovery_callbacks", "lookup", lookup
    yield "discovery_callbacks", "attributes", attrs

    with open(os.path.join(HERE, "..", "examples", "oem_config.xml"), "rb") as f:
        example = f.read()
    yield "oem_config", "example", example
    yield "oem_config", "goals", OEM_GOALS
    # An empty data_type_value aborts the parse by contract: the target must
    # drop this input rather than report it.
    yield "oem_config", "empty_hex_value", OEM_GOALS.replace(b'data_type_value="0x1000">',
                                                            b'data_type_value="0x">')

    yield "oem_config", "out_of_range", OEM_OUT_OF_RANGE

    yield "sensorstore_write_info", "own_and_foreign", write_info_input(store)
    yield "sensorstore_write_info", "short_walk", write_info_input(image([(own, report(hr, True))],
                                                                        data_len=40))
    yield "sensorstore_write_info", "write_error", write_info_input(store, error=5)

    yield "mandatory_list", "listed", b"health\nheart_rate\nstep_counter\n"
    yield "mandatory_list", "duplicates", b"heart_rate\r\nheart_rate\n\nhealth"

    yield "tool_inputs", "config", example
    yield "tool_inputs", "config_mistakes", OEM_MISTAKES
    yield "tool_inputs", "image", store
    request = packet(RESPONSE, bytes(7) + struct.pack("<I", 4) + b"\x15\x01\x00\x00", length=0) + bytes(992)
    yield "tool_inputs", "capture", capture([(0, 2, 1000, request), (0, 1, 2000, response()),
                                             (0, 1, 3000, low_power(2, total=len(store) - 8)),
                                             (1, 1, 3000, store[:8]),
                                             (1, 1, 3000, store[8:12 + len(report(hr, True))])])
    yield "tool_inputs", "config_out_of_range", OEM_OUT_OF_RANGE
    # Regression: a header claiming 4 GiB once sized the reader's buffer.
    yield "tool_inputs", "huge_data_len", struct.pack("<II", 0xFFFFFFFF, 0) + b"\x01\x02\x03\x04"


OEM_GOALS = b"""<?xml version="1.0"?>
<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1000"/>
    <datatype sensor_type="sleep" type="sleep_stages" data_type_value="0x20000"/>
  </datatypes>
  <goals>
    <goal datatype="heart_rate" data_type_value="0x1000">
      <threshold type="int" type_value="180" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="integer" type_value="50" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
    <goal datatype="sleep_stages" data_type_value="0x20000">
      <threshold type="byte" type_value="DEEP" comparison_type="GREATER_THAN_OR_EQUAL"/>
    </goal>
  </goals>
  <autoExerciseType>
    <exercisetype type="walking" sensor_type="heart_rate" exercise_num="1" auto_start="true"
                  auto_stop="true" auto_pause="false">
      <datatype type="heart_rate"/>
    </exercisetype>
  </autoExerciseType>
</configuration>
"""

# Values past what their fields hold, and a sensor type that is not text.
OEM_OUT_OF_RANGE = b"""<configuration type="KIV_oem_datatype">
  <datatypes>
    <datatype sensor_type="heart_rate" type="heart_rate" data_type_value="0x1FFFFFFFF"/>
    <datatype sensor_type="st\xff\xc3" type="steps" data_type_value="0x0000001000"/>
  </datatypes>
  <goals>
    <goal data_type_value="0x1000">
      <threshold type="int" type_value="99999999999999999999" comparison_type="GREATER_THAN_OR_EQUAL"/>
      <threshold type="int" type_value="-2147483649" comparison_type="LESS_THAN_OR_EQUAL"/>
      <threshold type="float" type_value="1e999" comparison_type="LESS_THAN_OR_EQUAL"/>
    </goal>
  </goals>
  <autoExerciseType>
    <exercisetype type="walking" sensor_type="heart_rate" exercise_num="-3" auto_start="true">
      <datatype type="steps"/>
    </exercisetype>
    <exercisetype type="running" sensor_type="st\xff" exercise_num="4294967296" auto_stop="1"/>
  </autoExerciseType>
</configuration>
"""

OEM_MISTAKES = b"""<configuration>
  <datatypes>
    <datatype sensor_type="a" type="x" data_type_value="12"/>
    <datatype sensor_type="a" type="x" data_type_value="0xZZ"/>
    <datatype type="y" data_type_value="0x3"/>
  </datatypes>
  <goals><goal data_type_value="0x9"><threshold type="bool" comparison_type="EQUAL"/></goal></goals>
</configuration>
"""


def main():
    for target, name, data in seeds():
        directory = os.path.join(CORPUS, target)
        os.makedirs(directory, exist_ok=True)
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
