"""What help(tarvo) shows, and in which order."""

import inspect
import pydoc
import unittest
from typing import Any, Dict

import tarvo

SCREEN = 40  # lines


def shown(what: Any) -> str:
    return pydoc.plain(pydoc.render_doc(what))


def functions() -> Dict[str, Any]:
    public = {name: getattr(tarvo, name) for name in tarvo.__all__}
    return {name: value for name, value in public.items() if inspect.isfunction(value)}


class Help(unittest.TestCase):
    def test_of_the_package_begins_with_its_purpose_and_all_its_functions(self) -> None:
        screen = shown(tarvo).splitlines()[:SCREEN]
        self.assertIn("memory region that devices reach by DMA", screen[3])
        starts = {line.split("  ")[0] for line in map(str.strip, screen)}
        self.assertGreater(len(functions()), 10)
        for name, function in functions().items():
            call = f"{name}({', '.join(inspect.signature(function).parameters)})"
            self.assertIn(call, starts)

    def test_of_the_package_names_all_its_types(self) -> None:
        assert tarvo.__doc__ is not None
        for name in tarvo.__all__:
            self.assertRegex(tarvo.__doc__, rf"\b{name}\b")

    def test_of_access_shows_what_it_has_and_not_what_every_integer_has(self) -> None:
        text = shown(tarvo.Access)
        for member in tarvo.Access.__members__:
            self.assertIn(f"{member} = ", text)
        self.assertNotIn("builtins.int:", text)
        self.assertLess(len(text.splitlines()), SCREEN)

    def test_leaves_access_the_integer_it_is(self) -> None:
        self.assertEqual(tarvo.Access.READ | tarvo.Access.WRITE, 3)
        self.assertEqual(tarvo.Access.READ_WRITE - 1, 2)
        self.assertEqual(tarvo.Access.WRITE.bit_length(), 2)


if __name__ == "__main__":
    unittest.main()
