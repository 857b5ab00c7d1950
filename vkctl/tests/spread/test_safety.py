"""Who can reach workers: nobody but their user here, and between machines who has a certificate."""

from __future__ import annotations

import datetime
import os
from collections.abc import Iterator
from pathlib import Path

import dask
import distributed  # noqa: F401 (its configuration has to be there before it is changed)
import psutil
import pytest
from cluster_work import scheduler, square
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

from vkctl.spread.over import over
from vkctl.spread.place import opened
from vkctl.spread.where import WhereError, parse_where
from vkctl.spread.work import Unit

pytestmark = pytest.mark.thorough


class Authority:
    """Who signs certificates; its own lies in the folder too."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self.folder, self.key = folder, ec.generate_private_key(ec.SECP256R1())
        self.name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, folder.name)])
        self.certificate = self._signed(self.name, self.key, authority=True)
        self.path = folder / "ca.pem"
        self.path.write_bytes(self.certificate.public_bytes(serialization.Encoding.PEM))

    def _signed(self, name, key, authority):
        now = datetime.datetime.now(datetime.UTC)
        builder = x509.CertificateBuilder().subject_name(name).issuer_name(self.name)
        builder = builder.public_key(key.public_key()).serial_number(x509.random_serial_number())
        builder = builder.not_valid_before(now - datetime.timedelta(minutes=5))
        builder = builder.not_valid_after(now + datetime.timedelta(days=1))
        constraints = x509.BasicConstraints(ca=authority, path_length=None)
        return builder.add_extension(constraints, critical=True).sign(self.key, hashes.SHA256())

    def issue(self, who: str) -> tuple[Path, Path]:
        """Certificate and key of somebody."""
        key = ec.generate_private_key(ec.SECP256R1())
        name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, who)])
        certificate = self._signed(name, key, authority=False)
        paths = self.folder / f"{who}.pem", self.folder / f"{who}.key"
        paths[0].write_bytes(certificate.public_bytes(serialization.Encoding.PEM))
        form, none = serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
        paths[1].write_bytes(key.private_bytes(serialization.Encoding.PEM, form, none))
        return paths


@pytest.fixture(scope="module")
def authority(tmp_path_factory: pytest.TempPathFactory) -> Authority:
    return Authority(tmp_path_factory.mktemp("tls") / "mine")


@pytest.fixture(scope="module")
def address(authority: Authority, tmp_path_factory: pytest.TempPathFactory) -> Iterator[str]:
    """A scheduler and a worker that want certificates."""
    certificate, key = authority.issue("node")
    options = ["--tls-ca-file", str(authority.path), "--tls-cert", str(certificate)]
    options += ["--tls-key", str(key)]
    folder = tmp_path_factory.mktemp("cluster")
    one_core = ["--nthreads", "1", "--memory-limit", "1GB", *options]
    with scheduler(folder, *options, worker_options=one_core, protocol="tls") as started:
        started.add_worker()
        yield started.address


def presenting(ca: Path, certificate: Path, key: Path):
    """The user's configuration of the engine, with a certificate."""
    base = "distributed.comm.tls"
    return dask.config.set(
        {
            f"{base}.ca-file": str(ca),
            f"{base}.client.cert": str(certificate),
            f"{base}.client.key": str(key),
        }
    )


def test_a_certificate_of_the_same_authority_opens(authority, address):
    with presenting(authority.path, *authority.issue("me")):
        with opened(parse_where(address)) as place:
            (done,) = over(place, square, [Unit("one", (4, "", ""))])
            assert done.value[0] == 16


def test_a_certificate_of_another_authority_is_refused(authority, address, tmp_path):
    other = Authority(tmp_path / "other")
    with presenting(authority.path, *other.issue("stranger")):
        with pytest.raises(WhereError, match="No scheduler can be reached at tls://"):
            with opened(parse_where(address)):
                pass


def test_a_scheduler_with_a_certificate_of_another_authority_is_refused(address, tmp_path):
    other = Authority(tmp_path / "other")
    with presenting(other.path, *other.issue("me")):
        with pytest.raises(WhereError, match="certificate"):
            with opened(parse_where(address)):
                pass


def test_no_certificate_at_all_is_refused(address):
    for where in (address, address.replace("tls://", "tcp://")):
        with pytest.raises(WhereError, match="No scheduler can be reached"):
            with opened(parse_where(where)):
                pass


def test_workers_of_this_machine_listen_on_the_loopback_alone():
    before = psutil.Process().children(recursive=True)
    with opened(parse_where("local:2")) as place:
        children = psutil.Process().children(recursive=True)
        processes = [psutil.Process(), *(child for child in children if child not in before)]
        listening = [
            connection.laddr.ip
            for process in processes
            for connection in process.net_connections(kind="inet")
            if connection.status == psutil.CONN_LISTEN
        ]
        assert len(listening) >= 5  # scheduler, workers, those that watch over them
        assert set(listening) == {"127.0.0.1"}
        stranger = place.client.scheduler.address
        with pytest.raises(WhereError, match="No scheduler can be reached"):
            with opened(parse_where(stranger)):
                pass


def test_workers_of_this_machine_leave_its_threads_as_they_were(monkeypatch) -> None:
    monkeypatch.delenv("OMP_NUM_THREADS", raising=False)
    with opened(parse_where("local:1")):
        assert "OMP_NUM_THREADS" not in os.environ
    assert "OMP_NUM_THREADS" not in os.environ
