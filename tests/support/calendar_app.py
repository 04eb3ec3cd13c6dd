#!/usr/bin/python3
"""A plain CalDAV client (python3-caldav) editing an event as a user's calendar app would.

Usage: calendar_app.py URL USER PASSWORD COLLECTION_URL RESOURCE SUMMARY DAYS
renames the event and moves its DTSTART by DAYS days.
"""
import datetime
import sys

import caldav


def main():
    url, user, password, collection, resource, summary, days = sys.argv[1:]
    client = caldav.DAVClient(url=url, username=user, password=password)
    calendar = caldav.Calendar(client=client, url=collection)
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


if __name__ == "__main__":
    main()
