"""The command `vkctl study`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.basics.extras import need
from vkctl.basics.words import printable
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson
from vkctl.terminal.reading import (
    NoLimits,
    TerminatedError,
    TrustScripts,
    ending_when_asked,
    reading_shown,
)
from vkctl.terminal.refusal import refuse, refusing


def study_command(
    study_file: Annotated[
        Path, typer.Argument(..., metavar="STUDY.toml", help="study file, which names a case file")
    ],
    out: Annotated[Path, typer.Argument(..., help="folder of the study, made if missing")],
    jobs: Annotated[
        int | None,
        typer.Option(
            ..., min=1, help="variants at a time; as processors and memory allow if not given"
        ),
    ] = None,
    threads: Annotated[
        int | None, typer.Option(..., min=1, help="threads of each; the processors shared out")
    ] = None,
    on: Annotated[
        str | None,
        typer.Option(
            ...,
            "--on",
            metavar="WHERE",
            help="workers that make the variants, and see OUT: local:N on this machine, "
            "tcp://HOST:PORT or tls://HOST:PORT of a Dask scheduler, or a cluster's name",
        ),
    ] = None,
    dry_run: Annotated[
        bool, typer.Option(..., "--dry-run", help="tell count, size and time, and do nothing")
    ] = False,
    again: Annotated[
        bool, typer.Option(..., "--again", help="begin anew; what OUT holds of a study is removed")
    ] = False,
    retry: Annotated[
        bool, typer.Option(..., "--retry", help="repeat the variants that failed")
    ] = False,
    pictures: Annotated[bool, typer.Option(..., help="draw the results at the end")] = True,
    vk_rund: Annotated[Path | None, typer.Option(..., "--vk-rund", help="the solver")] = None,
    as_json: AsJson = False,
    trust_scripts: TrustScripts = False,
    no_limits: NoLimits = False,
) -> None:
    """Make variants of a case file and a table of results; started again, it goes on.

    Exit status: 0 every variant is done, 1 some failed, which their rows tell, 2 for mistakes in
    the inputs, with nothing begun, 127 or 126 where the solver can't be found or executed.
    """
    from vkctl.prepare.case_file.mistakes import CaseFileError
    from vkctl.prepare.part import PartError, Reading
    from vkctl.running.run import NotFoundError
    from vkctl.spread.over import GoneError
    from vkctl.spread.where import WhereError, parse_where
    from vkctl.study import StudyError, planned, study, tables
    from vkctl.study import pictures as drawing
    from vkctl.study.read import clusters_of_study
    from vkctl.study.remote import dispatch_on
    from vkctl.terminal import studying

    console = output.console(silent=as_json)
    if on is not None and (jobs is not None or threads is not None):
        raise refuse(
            "--jobs and --threads are for this machine: the workers of --on have their own."
        )

    def tell(line: str) -> None:
        console.print(printable(line), markup=False, soft_wrap=True)

    with refusing():
        if pictures and not dry_run:
            need("matplotlib")
    try:
        with refusing(CaseFileError, PartError, StudyError, WhereError), ending_when_asked():
            if dry_run:
                with reading_shown(trust_scripts, no_limits) as reading:
                    found = planned(
                        study_file, out, jobs=jobs, threads=threads, again=again, reading=reading
                    )
                for line in studying.planned_lines(found):
                    console.print(line, markup=False, soft_wrap=True)
                return
            at = None if on is None else parse_where(on, clusters_of_study(study_file))
            where = None if at is None else dispatch_on(at, tell)
            with studying.shown(console) as show:
                done = study(
                    study_file,
                    out,
                    jobs=jobs,
                    threads=threads,
                    again=again,
                    retry=retry,
                    vk_rund=vk_rund,
                    reading=Reading(trust_scripts, not no_limits),
                    dispatch=where,
                    on_progress=show,
                )
    except GoneError as error:
        raise refuse(f"{error} Start it again to go on.") from None
    except NotFoundError as error:
        raise refuse(error, error.status) from None
    except KeyboardInterrupt:
        raise refuse("Interrupted: start it again to go on.", 130) from None
    except TerminatedError:
        raise refuse("Terminated: start it again to go on.", 143) from None
    written = [tables.CSV]
    with refusing(ValueError):
        if tables.can_write_parquet():
            tables.write_parquet(done.out, done.plan)
            written.append(tables.PARQUET)
        if pictures and drawing.draw(done.out, done.plan, done.rows) is not None:
            written.append(drawing.PICTURE)
    if as_json:
        output.print_json(studying.studied_as_dict(done))
    for line in studying.closing_lines(done):
        console.print(line, markup=False, soft_wrap=True)
    console.print(f"{', '.join(written)} in {done.out}", markup=False, soft_wrap=True)
    if not tables.can_write_parquet():
        text = f"note: {tables.PARQUET} needs DuckDB: pip install 'vkctl[study]'"
        console.print(text, markup=False, soft_wrap=True)
    raise typer.Exit(done.status)
