"""A handler for Python's own logging."""

import logging

from . import _callbacks, _events


class LoggingHandler(logging.Handler):
    """Reports records as errors: `logging.getLogger().addHandler(kelvo.LoggingHandler())`.

    Takes records of ERROR and above unless `level` says otherwise. The description is the exception of the record, else
    its text (by the handler's formatter, if it has one). Attributes are "logger", "level", "place" and, with an
    exception, "message" and "traceback". Records of the callbacks that this package calls are left out: a log sink that
    logs would otherwise report its own lines.
    """

    def __init__(self, level: int = logging.ERROR) -> None:
        super().__init__(level)

    def emit(self, record: logging.LogRecord) -> None:
        if _callbacks.is_current():
            return
        try:
            text = self.formatter.format(record) if self.formatter else record.getMessage()
            facts = {"logger": record.name, "level": record.levelname, "place": f"{record.module}:{record.lineno}"}
            error = record.exc_info[1] if record.exc_info else None
            if error is not None:
                _events.report(error, facts, message=text)
            else:
                _events.report(text, facts)
        except Exception:
            self.handleError(record)
