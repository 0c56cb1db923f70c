"""What the pictures of the documentation show."""

import random

from web_answers import NOW
from web_support import crash, event


def fill_pictures(archiver):
    """Two enclosures of blades for the pictures: most of them well, one of them not."""
    chance = random.Random(7)
    known = ((18, 1, b"boot finished"), (27, 3, b"self test"), (11, 40, b"fan tray 2 back in range"), (9, 210, b"cache battery learning cycle ends"),
             (12, 77, b"link up at 8 Gbit/s"), (14, 300, b"drive 11 spins up"), (14, 305, b"rebuild of group 3 is at 60 %"))
    for enclosure in range(2):
        for slot in range(1, 8):
            name, count = f"ctl-{'ab'[enclosure]}{slot}", chance.randrange(60, 240)
            times = sorted(NOW - int(7200 * chance.random() ** (3 if slot == 4 else 1)) for _ in range(count))
            events = []
            for number, seconds in enumerate(times, 1):
                source, event_id, text = chance.choice(known)
                worse = chance.random()
                kind = 3 if worse < (0.08 if slot == 4 else 0.003) else 2 if worse < (0.2 if slot == 4 else 0.03) else 1
                text = {1: text, 2: b"drive 7: %d medium errors" % chance.randrange(9), 3: b"drive 7 does not answer: taken out of group 3"}[kind]
                events.append(event(name, number, seconds=seconds, kind=kind, source=14 if kind > 1 else source, event_id=event_id, data=text,
                                    enclosure=f"ENC-{enclosure + 1}", slot=slot))
            if (enclosure, slot) == (0, 4):
                events.insert(len(events) - 12, crash(name, len(events) - 11, seconds=times[-12], enclosure="ENC-1", slot=slot))
                events = [one[:136] + number.to_bytes(4, "big") + one[140:] for number, one in enumerate(events, 1)]
                del events[40:46]
            archiver.send(events)
