#!/usr/bin/python3
"""A plain CalDAV client (python3-caldav) acting on a calendar as a user's calendar app would.

Usage: calendar_app.py URL USER PASSWORD COLLECTION_URL ACTION ARG...
  create UID SUMMARY YYYYMMDD      an all-day event of the app's own
  edit RESOURCE SUMMARY DAYS       renames an event and moves its DTSTART by DAYS days
"""
import datetime
import sys

import caldav


def main():
    url, user, password, collection, action, *args = sys.argv[1:]
    client = caldav.DAVClient(url=url, username=user, password=password)
    calendar = caldav.Calendar(client=client, url=collection)
    if action == "create":
        uid, summary, day = args
        start = datetime.datetime.strptime(day, "%Y%m%d").date()
        text = summary.replace("\\", "\\\\").replace(",", "\\,").replace(";", "\\;")
        calendar.save_event(
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//a calendar app//EN\r\n"
            f"BEGIN:VEVENT\r\nUID:{uid}\r\nDTSTAMP:20260101T000000Z\r\n"
            f"DTSTART;VALUE=DATE:{start:%Y%m%d}\r\n"
            f"DTEND;VALUE=DATE:{start + datetime.timedelta(days=1):%Y%m%d}\r\n"
            f"SUMMARY:{text}\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n")
    elif action == "edit":
        resource, summary, days = args
        event = calendar.event_by_url(collection + resource)
        event.load()
        component = event.icalendar_component
        start = component.decoded("dtstart")
        for name in ("summary", "dtstart", "last-modified"):
            if name in component:
                del component[name]
        component.add("summary", summary)
        component.add("dtstart", start + datetime.timedelta(days=int(days)))
        component.add("last-modified", datetime.datetime.now(datetime.timezone.utc))
        event.save()
    else:
        raise SystemExit("unknown action " + action)


if __name__ == "__main__":
    main()
