"""Reads the time zone table that every system carries, writes it as JSON, reads that back and reports on it.

    python demo/reformat.py [TABLE [JSON_FILE]]

TABLE      a file in the format of zone1970.tab; the one in demo/data when left out
JSON_FILE  where to write the JSON; nowhere when left out
"""

import csv
import json
import pathlib
import sys
import textwrap

COLUMNS = ("countries", "coordinates", "zone", "comments")


def parse_angle(text):
    """Degrees from +DDMM, +DDDMM, +DDMMSS or +DDDMMSS."""
    sign = -1 if text[0] == "-" else 1
    digits = text[1:]
    whole = 2 if len(digits) in (4, 6) else 3
    degrees = int(digits[:whole]) + int(digits[whole:whole + 2]) / 60 + int(digits[whole + 2:] or 0) / 3600
    return round(sign * degrees, 4)


def parse_coordinates(text):
    """Latitude and longitude, in degrees."""
    split = max(text.rfind("+"), text.rfind("-"))
    return parse_angle(text[:split]), parse_angle(text[split:])


def read_zones(table):
    """The zones of a table, by the part of the world that their names begin with."""
    with open(table, encoding="utf-8", newline="") as file:
        rows = csv.DictReader((line for line in file if not line.startswith("#")), COLUMNS, delimiter="\t")
        regions = {}
        for row in rows:
            region, _, place = row["zone"].partition("/")
            latitude, longitude = parse_coordinates(row["coordinates"])
            regions.setdefault(region, []).append({
                "place": place.replace("_", " "),
                "countries": row["countries"].split(","),
                "latitude": latitude,
                "longitude": longitude,
            })
    return regions


def report(regions):
    """One line for each part of the world."""
    for region, zones in sorted(regions.items()):
        northernmost = max(zones, key=lambda zone: zone["latitude"])
        places = ", ".join(sorted(zone["place"] for zone in zones))
        print(textwrap.shorten(
            f"{region}: {len(zones)} zones, {northernmost['place']} the northernmost; {places}", 100))


def main(table=pathlib.Path(__file__).with_name("data") / "zone1970.tab", json_file=None):
    text = json.dumps(read_zones(table), indent=2, ensure_ascii=False)
    if json_file is not None:
        pathlib.Path(json_file).write_text(text + "\n", encoding="utf-8")
    report(json.loads(text))


if __name__ == "__main__":
    main(*sys.argv[1:])
