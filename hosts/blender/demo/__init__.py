"""The demo of corvelle-helper: a head, its hair, and a picture of it."""
