"""The one exception type of the package."""

from typing import Any, Tuple


class Error(Exception):
    """A failure of the library: a bad model, a bad feed, a failed check.

    Attributes:
        message: the library's text of the failure.
        node: the node being translated, prepared or run when it failed ("" otherwise).
        operator: that node's operator ("" otherwise).

    The model that raised stays usable.
    """

    def __init__(self, message: str, node: str = "", operator: str = "") -> None:
        super().__init__(message, node, operator)
        self.message = message
        self.node = node
        self.operator = operator

    def __reduce__(self) -> Tuple[Any, ...]:
        return (Error, (self.message, self.node, self.operator))

    def __str__(self) -> str:
        if not self.node:
            return self.message
        return "%s (node '%s', operator %s)" % (self.message, self.node, self.operator or "?")
