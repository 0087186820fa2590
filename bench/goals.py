"""What the results of bench.py are to reach, as ratios within one run.

`floor` says how many times as long as the floor the library may take, `plain` how many times as
long as the library the plain build is to take.
"""

from dataclasses import asdict, dataclass
from typing import Any

GET = "get a name"
CHURN = "allocate and free 4 KiB"
FIRST_GET = "first get of a new process"
TOUCH = "map 64 KiB, touch, unmap"
LAST = "find the last by address"

# Work, names -> ext4, tmpfs.
FLOOR = {
    (GET, 16): (1.25, 1.25),
    (GET, 1000): (1.15, 1.15),
    (GET, 2500): (1.15, 1.15),
    (GET, 16000): (1.15, 1.15),
    (CHURN, 1000): (1.10, 1.10),
    (CHURN, 2500): (1.10, 1.10),
    (CHURN, 16000): (1.15, 1.15),
    (FIRST_GET, 1000): (2.0, 1.3),
    (FIRST_GET, 2500): (2.0, 1.3),
    (FIRST_GET, 16000): (1.4, 1.3),
    (TOUCH, 1000): (1.15, 1.15),
    (TOUCH, 16000): (1.15, 1.15),
    (LAST, 1000): (1.10, 1.10),
    (LAST, 16000): (1.15, 1.15),
}

# Work, names -> ext4 in order and shuffled, tmpfs in order and shuffled.
PLAIN = {
    (GET, 16): (0.95, 0.95, 0.95, 0.95),
    (GET, 1000): (1.9, 1.9, 1.9, 2.3),
    (GET, 2500): (2.2, 2.7, 2.2, 2.5),
    (GET, 16000): (2.6, 3.6, 2.0, 2.9),
    (CHURN, 1000): (1.4, 1.6, 1.5, 1.6),
    (CHURN, 2500): (1.6, 2.0, 1.8, 2.0),
    (CHURN, 16000): (2.6, 3.8, 1.8, 3.0),
    (FIRST_GET, 1000): (None, None, 0.85, 0.85),
    (FIRST_GET, 2500): (None, None, 0.85, 0.85),
    (FIRST_GET, 16000): (2.0, 1.6, 0.85, 0.85),
    (TOUCH, 1000): (1.7, None, 1.5, None),
    (TOUCH, 16000): (2.6, None, 1.7, None),
    (LAST, 1000): (2.1, 2.2, 2.0, 2.2),
    (LAST, 16000): (2.7, 4.2, 1.7, 2.8),
}


@dataclass
class Goal:
    of: str  # "floor": at most so many times as long as it; "plain": it takes at least as many
    limit: float
    reached: float

    @property
    def met(self) -> bool:
        return self.reached <= self.limit if self.of == "floor" else self.reached >= self.limit

    def as_json(self) -> dict[str, Any]:
        return {**asdict(self), "met": self.met}


def goals_of(result: Any) -> list[Goal]:
    """Those of `result` whose other side has been measured, too."""
    key = (result.work, result.names)
    files = 1 if result.files == "tmpfs" else 0
    limits = {
        "floor": FLOOR[key][files] if key in FLOOR else None,
        "plain": PLAIN[key][2 * files + (result.order == "shuffled")] if key in PLAIN else None,
    }
    medians = result.medians()
    goals = []
    for of, limit in limits.items():
        if limit is not None and {of, "tarvo"} <= medians.keys():
            ratio = medians[of] / medians["tarvo"]
            goals.append(Goal(of, limit, 1 / ratio if of == "floor" else ratio))
    return goals
