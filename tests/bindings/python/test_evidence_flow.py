"""The kivsdk package end to end against the reference service: the evidence flow in its blocking and
callback forms, progress, certificates checked offline, and the SDK's errors raised as KivError."""

import hashlib
import os
import threading

import pytest

import kivsdk

WAIT_BOUND = 90


class Completion:
    """A callback for the SDK's callback forms: counts its calls and keeps the last arguments."""

    def __init__(self):
        self.calls = []
        self.thread = None
        self._done = threading.Event()

    def __call__(self, *arguments):
        self.calls.append(arguments)
        self.thread = threading.get_ident()
        self._done.set()

    def wait(self):
        assert self._done.wait(WAIT_BOUND), "the completion never came"
        return self.calls[0]


def new_report(name, *paths, signed=False):
    report = kivsdk.KivReport(name)
    reports = kivsdk.load_from_store()
    for path in paths:
        imported = (kivsdk.import_signed_media_file(path, report, reports).file if signed
                    else kivsdk.import_media_file(path, report, reports))
        report.files = [*report.files, imported]
    kivsdk.persist([*reports, report])
    return report


def test_a_report_goes_through_the_service_and_its_certificate_verifies_offline(sdk, service, media, tmp_path):
    photo, video = media("leak.jpg", size=300_000), media("leak.mp4", size=5000)
    report = new_report("Kitchen", photo, video, signed=True)
    assert [f.hash for f in report.files] == [hashlib.sha256(open(p, "rb").read()).hexdigest()
                                              for p in (photo, video)]

    sent = kivsdk.send(report.with_calculated_hash())
    assert sent.has_slug and sent.id == report.id and all(f.slug for f in sent.files)
    receipts = kivsdk.send_statements(sent)
    assert sorted(r.file_name for r in receipts) == sorted(f"{f.name}.{f.ext}" for f in sent.files)
    assert {r.key_id for r in receipts} == {kivsdk.device_key_id()}

    sizes = {f"{f.name}.{f.ext}": os.path.getsize(f.file_url) for f in sent.files}
    progress = {name: [] for name in sizes}
    uploaded = [kivsdk.upload_content(f, sent, progress=lambda done, expected, seen=progress[f"{f.name}.{f.ext}"]:
                                      seen.append((done, expected)))
                for f in sent.files]
    assert all(f.has_remote_file for f in uploaded)
    assert {name: seen[-1] for name, seen in progress.items()} == {name: (size, size) for name, size in sizes.items()}
    sent.files = uploaded
    assert kivsdk.force_status_update(sent).proof_status == kivsdk.KivReport.ProofStatus.confirmed
    assert kivsdk.update(sent).proof_status == kivsdk.KivReport.ProofStatus.confirmed

    assert kivsdk.generate_pdf(sent) is True
    pdf = open(sent.pdf_url, "rb").read()
    assert pdf.startswith(b"%PDF") and sent.has_local_pdf
    assert kivsdk.fetch_manifest(sent).count(".") == 2  # a compact JWS
    assert isinstance(kivsdk.fetch_timestamp(sent), bytes)
    assert "BEGIN CERTIFICATE" in kivsdk.fetch_certificates()

    verifier = kivsdk.ProvenanceVerifier.trusting(open(service.ca_file).read())
    checked = verifier.verify(pdf, [f.file_url for f in uploaded])
    assert checked.passed, [(c.name, c.message) for c in checked.checks if not c.passed]
    assert checked.report_name == "Kitchen" and checked.slug == sent.slug
    assert checked.check("pdf-signature").passed and checked.check("nothing such") is None
    changed = tmp_path / "changed"
    changed.mkdir()
    for f in uploaded:
        (changed / f"{f.name}.{f.ext}").write_bytes(b"not what was certified")
    tampered = verifier.verify(pdf, [str(changed)])
    assert not tampered.passed and not tampered.check(f"file:{uploaded[0].name}.{uploaded[0].ext}").passed

    file = uploaded[0]
    os.remove(file.file_url)
    seen = []
    assert kivsdk.download_content(file, progress=lambda done, expected: seen.append(done)) is True
    assert kivsdk.sha256_of_file(file.file_url) == file.hash and seen[-1] == 300_000


def test_certify_runs_the_flow_blocking_and_with_a_callback(sdk, media):
    progress = []
    outcome = kivsdk.certify(new_report("Hall", media("hall.jpg", size=70_000)),
                             progress=lambda file, done, expected: progress.append((file.name, done)))
    assert outcome.confirmed and outcome.error is None and outcome.failed_step is None
    assert outcome.report.proof_status == kivsdk.KivReport.ProofStatus.confirmed
    assert progress[-1] == (outcome.report.files[0].name, 70_000)

    finished = Completion()
    assert kivsdk.certify(new_report("Attic", media("attic.jpg")), callback=finished) is None
    (later,) = finished.wait()
    assert later.confirmed and later.report.name == "Attic"
    assert len(finished.calls) == 1 and finished.thread != threading.get_ident()


def test_callback_forms_answer_once_with_a_value_or_a_kiv_error(sdk, media):
    report = kivsdk.send(new_report("Porch", media("porch.jpg")))
    answered = Completion()
    kivsdk.update(report, callback=answered)
    value, error = answered.wait()
    assert error is None and value.slug == report.slug

    refused = Completion()
    kivsdk.update(kivsdk.KivReport("Never sent"), callback=refused)  # fails before the call returns
    value, error = refused.wait()
    assert value is None and isinstance(error, kivsdk.KivError)
    assert str(error) == "File for request is missing mandatory 'slug' value"
    assert len(answered.calls) == len(refused.calls) == 1

    subscribed = Completion()
    properties = kivsdk.UserProperties("me@example.com", "+441234", [kivsdk.MailList("news", "News", True)])
    kivsdk.update_newsletters(properties, callback=subscribed)
    assert subscribed.wait() == (True, None)


def missing_file(sdk, tmp_path):
    kivsdk.import_media_file(str(tmp_path / "gone.jpg"), kivsdk.KivReport("R"), [])


def duplicate_name(sdk, tmp_path):
    kivsdk.check_new_report_name([kivsdk.KivReport("Garage")], "Garage")


def unknown_report(sdk, tmp_path):
    kivsdk.find_report([kivsdk.KivReport("Garage")], "Loft")


def unsent_upload(sdk, tmp_path):
    kivsdk.upload_content(kivsdk.KivFile("a", "jpg", 0), kivsdk.KivReport("R"))


def plain_http_service(sdk, tmp_path):
    kivsdk.use_service("http://127.0.0.1:1")


def not_a_certificate_authority(sdk, tmp_path):
    kivsdk.ProvenanceVerifier.trusting("not a PEM certificate")


@pytest.mark.parametrize("fails, domain, code, message", [
    (missing_file, "NSPOSIXErrorDomain", 2, "gone.jpg"),
    (duplicate_name, "NSPOSIXErrorDomain", 17, "Garage"),
    (unknown_report, "NSPOSIXErrorDomain", 2, 'no report "Loft"'),
    (unsent_upload, None, None, "slug"),
    (plain_http_service, "NSURLErrorDomain", -1000, "must be an https address"),
    (not_a_certificate_authority, None, None, ""),
])
def test_sdk_errors_raise_kiv_error_with_the_sdk_message(sdk, tmp_path, fails, domain, code, message):
    with pytest.raises(kivsdk.KivError) as raised:
        fails(sdk, tmp_path)
    error = raised.value
    assert message in str(error) and error.message == str(error)
    assert isinstance(error.domain, str) and isinstance(error.code, int)
    if domain is not None:
        assert (error.domain, error.code) == (domain, code)
