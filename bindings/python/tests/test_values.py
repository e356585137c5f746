"""Values and their text forms, in both directions."""

import ipaddress
import math
import socket

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import qelkrell
from qelkrell import Value, evaluate, parse, strep


def integers(bits, signed=False):
    low = -(1 << bits - 1) if signed else 0
    return st.integers(low, low + (1 << bits) - 1)


def text(limit):
    return st.text(st.characters(blacklist_characters="\0", blacklist_categories=["Cs"]),
                   max_size=limit).filter(lambda t: len(t.encode()) <= limit)


def ipv6_text(number):
    return socket.inet_ntop(socket.AF_INET6, number.to_bytes(16, "big"))


KEYS = st.fixed_dictionaries({"name": text(12), "port": integers(16)})
ALL = st.fixed_dictionaries({
    "key": KEYS, "flag": st.booleans(), "u8": integers(8), "s8": integers(8, True),
    "u64": integers(64), "s64": integers(64, True), "real": st.floats(),
    "colour": st.sampled_from(["red", "green", "blue"]),
    "place": st.fixed_dictionaries({"x": integers(32, True), "y": integers(32, True)}),
    "numbers": st.lists(integers(32), min_size=4, max_size=4), "text": text(40),
    "ipv4": st.ip_addresses(v=4).map(str), "ipv6": integers(128).map(ipv6_text),
    "mac": st.binary(min_size=6, max_size=6).map(lambda b: b.hex(":"))})


def plain(value):
    """As dicts and lists all through."""
    if isinstance(value, Value):
        return {name: plain(value[name]) for name in value.keys()}
    return value


def same(a, b):
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(same(a[name], b[name]) for name in a)
    if isinstance(a, float) and math.isnan(a):
        return math.isnan(b)
    return a == b and type(a) is type(b)


@given(ALL)
@settings(max_examples=300, deadline=None)
def test_what_goes_in_comes_out(attributes):
    value = Value("Kinds::All", **attributes)
    assert same(plain(value), attributes)


@given(ALL)
@settings(max_examples=300, deadline=None)
def test_the_text_form_is_an_expression_in_both_directions(attributes):
    value = Value("Kinds::All", **attributes)
    for again in (evaluate(strep(value)), parse("Kinds::All", strep(value)),
                  eval(repr(value), {"Value": Value, "float": float})):
        assert same(plain(again), attributes)
        assert strep(again) == strep(value)


@given(ALL, ALL)
@settings(max_examples=100, deadline=None)
def test_equal_values_are_those_of_equal_attributes(a, b):
    first, second = Value("Kinds::All", **a), Value("Kinds::All", **b)
    if not math.isnan(a["real"]) and not math.isnan(b["real"]):
        assert (first == second) == (a == b)
        assert first == Value("Kinds::All", **a)
        assert hash(first) == hash(Value("Kinds::All", **a))
    assert first != a


def test_text_that_is_none_comes_back_as_it_was():
    bytes_ = parse("Kinds::All", r"Value('Kinds::All', ** {'text': '\xff\x80a'})")
    assert bytes_.text.encode("utf-8", "surrogateescape") == b"\xff\x80a"
    assert Value("Kinds::All", **bytes_.as_dict()) == bytes_


def test_attributes_that_are_not_given_have_their_defaults():
    assert plain(Value("Kinds::Place", y=3)) == {"x": 0, "y": 3}
    assert Value("Kinds::Place").__type__ == "Kinds::Place"
    assert dir(Value("Kinds::Place")) == ["x", "y"]
    assert Value("Kinds::Place", x=1).as_dict() == {"x": 1, "y": 0}


@pytest.mark.parametrize("attributes, error, says", [
    ({"x": 1 << 31}, ValueError, "x"),
    ({"x": "1"}, ValueError, "x"),
    ({"x": 1.5}, ValueError, "x"),
    ({"z": 1}, ValueError, "z"),
    ({"x": object()}, TypeError, "object"),
    ({"x": {}}, TypeError, "dict"),
])
def test_bad_attributes_are_refused_by_name(attributes, error, says):
    with pytest.raises(error, match=says):
        Value("Kinds::Place", **attributes)


def test_addresses_are_text_and_come_as_objects_too():
    value = Value("Kinds::All", ipv4=ipaddress.ip_address("10.0.0.7"),
                  ipv6=ipaddress.ip_address("fe80::1"), mac="00-1C-73-00-ca-fe")
    assert (value.ipv4, value.ipv6, value.mac) == ("10.0.0.7", "fe80::1", "00:1c:73:00:ca:fe")
    for name, text in (("ipv4", "10.0.0"), ("ipv6", "10.0.0.7"), ("mac", "00:1c")):
        with pytest.raises(ValueError, match=f"'{text}' is no "):
            Value("Kinds::All", **{name: text})


def test_other_mistakes_are_told():
    with pytest.raises(ValueError, match="there is no type 'Kinds::None'"):
        Value("Kinds::None")
    place = Value("Kinds::Place")
    with pytest.raises(AttributeError, match="has no attribute 'z'"):
        place.z
    with pytest.raises(KeyError):
        place["z"]
    with pytest.raises(AttributeError):
        place.x = 3
    with pytest.raises(qelkrell.RangeException):
        parse("Kinds::Place", "Value('Kinds::Place', ** {'x': 1})junk")
    with pytest.raises(qelkrell.EndOfTextException) as ended:
        parse("Kinds::Place", "Value('Kinds::Place', ** {'x': 1}")
    assert isinstance(ended.value, qelkrell.RangeException)
    with pytest.raises(ValueError):
        Value("Kinds::All", colour="yellow")
    with pytest.raises(ValueError, match="does not fit"):
        Value("Kinds::All", text="x" * 41)
    with pytest.raises(OSError, match="/nowhere"):
        qelkrell.load_types("/nowhere")
