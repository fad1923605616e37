"""Bad input through the kivsdk package: a clear Python exception, never a crash, and callbacks that raise
on the SDK's threads reported while their operation still completes once."""

import datetime
import math
import threading

import pytest

import kivsdk


def report_named(value):
    kivsdk.KivReport(value)


def file_dated(value):
    kivsdk.KivFile("a", "jpg", value)


def report_id(value):
    kivsdk.KivReport("R").id = value


def report_metadata(value):
    kivsdk.KivReport("R").metadata = value


def sent(value):
    kivsdk.send(value)


def uploaded_with_progress(value):
    kivsdk.upload_content(kivsdk.KivFile("a", "jpg", 0), kivsdk.KivReport("R"), progress=value)


def certified_within(value):
    kivsdk.certify(kivsdk.KivReport("R"), confirmation_timeout=value)


def verified(value):
    kivsdk.ProvenanceVerifier.trusting(value)


@pytest.mark.parametrize("call, value, raised, message", [
    (report_named, None, TypeError, "incompatible"),
    (report_named, b"Kitchen", TypeError, "incompatible"),
    (report_named, "Kitchen \udcff", UnicodeEncodeError, "surrogates not allowed"),
    (verified, "\ud800", UnicodeEncodeError, "surrogates not allowed"),
    (file_dated, math.inf, ValueError, "years 1 to 9999"),
    (file_dated, math.nan, ValueError, "years 1 to 9999"),
    (file_dated, 1e300, ValueError, "years 1 to 9999"),
    (file_dated, "yesterday", TypeError, "datetime.datetime or seconds"),
    (file_dated, True, TypeError, "not bool"),
    (report_id, "not a UUID", ValueError, "not a UUID"),
    (report_metadata, {"k": math.nan}, ValueError, "no JSON form"),
    (report_metadata, {"k": object()}, ValueError, "no JSON form"),
    (report_metadata, {"k": "\udcff"}, ValueError, "no JSON form"),
    (report_metadata, None, TypeError, "incompatible"),
    (sent, None, TypeError, "incompatible"),
    (uploaded_with_progress, "not callable", TypeError, "progress must be callable"),
    (certified_within, -1, ValueError, "confirmation_timeout"),
])
def test_bad_input_raises_a_clear_error(call, value, raised, message):
    with pytest.raises(raised, match=message):
        call(value)


@pytest.fixture
def own_data_directory(tmp_path):
    """The SDK's data in `tmp_path` for one test; the session's folder again after it."""
    before = kivsdk.data_directory()
    kivsdk.set_data_directory(str(tmp_path))
    kivsdk.load_from_store()  # sets the store up, as a host does at start-up
    yield tmp_path
    kivsdk.set_data_directory(before)


def test_records_hold_what_python_gives_them(own_data_directory):
    tmp_path = own_data_directory
    taken = datetime.datetime(2024, 5, 1, 12, 0, tzinfo=datetime.timezone.utc)
    file = kivsdk.KivFile("20240501_120000", "JPG", taken)
    assert file.file_type == kivsdk.KivFile.FileType.image and file.date_taken == taken
    assert kivsdk.KivFile("clip", "mov", taken.timestamp()).file_type == kivsdk.KivFile.FileType.video
    assert file.file_url == str(tmp_path / "Documents" / "Kiv" / "20240501_120000.JPG")
    assert file.local_file_location is None and not file.has_local_file

    report = kivsdk.KivReport("Kitchen ✓")
    report.files = [file]
    report.metadata = {"room": {"floor": 2}}
    assert report.metadata == {"room": {"floor": "2"}}  # leaves are kept as text
    report.id = report.id.lower()
    assert report.id == report.id.upper()
    earlier = kivsdk.KivReport("Hall")
    earlier.created = report.created - datetime.timedelta(seconds=5)
    assert earlier < report and sorted([report, earlier]) == [earlier, report]

    kivsdk.persist([report, earlier])
    stored = kivsdk.load_from_store()
    assert stored == [report, earlier] and stored[0].files[0].date_taken == taken
    assert stored[0].metadata == report.metadata and stored[0].name == "Kitchen ✓"
    assert kivsdk.find_report(stored, "Hall") == 1


def test_a_callback_that_raises_is_reported_and_its_completion_counts_once(unraisable):
    calls = []

    def failing(value, error):
        calls.append(threading.get_ident())
        raise RuntimeError("the host's own bug")

    with unraisable.watching():
        kivsdk.update(kivsdk.KivReport("Never sent"), callback=failing)
        assert unraisable.wait_for(1)
    (exception, where), = unraisable.reported
    assert isinstance(exception, RuntimeError) and "kivsdk completion" in where
    assert len(calls) == 1


def test_a_progress_callback_that_raises_leaves_the_transfer_running(sdk, media, unraisable):
    report = kivsdk.KivReport("Cellar")
    report.files = [kivsdk.import_media_file(media("cellar.jpg", size=100_000), report, [])]
    sent = kivsdk.send(report)

    def failing(done, expected):
        raise ValueError("progress bar gone")

    with unraisable.watching():
        uploaded = kivsdk.upload_content(sent.files[0], sent, progress=failing)
        assert uploaded.has_remote_file
        assert unraisable.wait_for(1)
    assert all(isinstance(e, ValueError) and "progress" in where for e, where in unraisable.reported)
