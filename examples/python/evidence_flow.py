#!/usr/bin/env python3
"""The whole evidence flow with the kivsdk package, against a certification service.

    evidence_flow.py --service https://127.0.0.1:18443 --ca ca.pem "Water damage, kitchen" leak.jpg leak.mp4

Takes the photos and videos into a new report, each with this device's signed statement; sends the report
and the statements; certifies it (uploads the content and waits for the service to confirm it); downloads
the certificate and checks it offline against the service's CA. Exits 1, saying why, when a step fails.
"""

import argparse
import sys

import kivsdk


def arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("name", help="the report's name, which also names its certificate")
    parser.add_argument("media", nargs="+", help="photos and videos")
    parser.add_argument("--service", help="the service's https address (default: the one the SDK was built for)")
    parser.add_argument("--ca", required=True, help="the service's CA certificate (PEM)")
    parser.add_argument("--token", default="my-app-token", help="the application token")
    parser.add_argument("--data", help="the application's data folder (default: under $XDG_DATA_HOME)")
    return parser.parse_args(argv)


def show_progress(file, done, expected):
    # Runs on one of the SDK's threads, as the upload moves.
    print(f"{file.name}.{file.ext}: {done} of {expected} bytes", flush=True)


def take_in(name, media, reports):
    """A new report of `media`, each file copied into the SDK's media folder with its signed statement."""
    kivsdk.check_new_report_name(reports, name)
    report = kivsdk.KivReport(name)
    for path in media:
        # Records are values: the report's files change by assigning a new list.
        report.files = [*report.files, kivsdk.import_signed_media_file(path, report, reports).file]
    return report


def certified(report, reports):
    """The report sent with its statements and certified; the store keeps each copy the service answers."""
    report = kivsdk.send(report)
    reports[-1] = report
    receipts = kivsdk.send_statements(report)
    print(f"{report.name}: {report.slug}, {len(receipts)} statement(s) held by the service")
    outcome = kivsdk.certify(report, progress=show_progress)
    reports[-1] = outcome.report  # keep it whatever happened
    kivsdk.persist(reports)
    if not outcome.confirmed:
        raise outcome.error
    return outcome.report


def verified(report, ca_file):
    """The certificate downloaded and checked offline, with the media files it certifies."""
    kivsdk.generate_pdf(report)
    with open(report.pdf_url, "rb") as certificate, open(ca_file) as ca:
        pdf, authority = certificate.read(), ca.read()
    result = kivsdk.ProvenanceVerifier.trusting(authority).verify(pdf, [f.file_url for f in report.files])
    for check in result.checks:
        print(f"  {'ok  ' if check.passed else 'FAIL'}  {check.name}: {check.message}")
    return result.passed


def main(argv=None):
    options = arguments(argv)
    if options.data:
        kivsdk.set_data_directory(options.data)
    if options.service:
        kivsdk.use_service(options.service, options.ca)
    kivsdk.setup(options.token)
    reports = kivsdk.load_from_store()  # once, at start-up
    try:
        reports.append(take_in(options.name, options.media, reports))
        kivsdk.persist(reports)
        report = certified(reports[-1], reports)
        print(f"{report.name}: {kivsdk.KivReport.status_text(report.proof_status)}; certificate {report.pdf_url}")
        if not verified(report, options.ca):
            print(f"{report.pdf_url}: NOT verified", file=sys.stderr)
            return 1
    except kivsdk.KivError as error:
        print(f"evidence_flow: {error}", file=sys.stderr)
        return 1
    print(f"{report.pdf_url}: verified")
    return 0


if __name__ == "__main__":
    sys.exit(main())
