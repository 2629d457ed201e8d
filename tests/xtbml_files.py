"""Small XTbML files written by tests: one ultimate, select or two-dimensional block at a time."""

from __future__ import annotations

from pathlib import Path


def axis_def(axis_id, lo, hi, step=1, scale="Age"):
    return (
        f'<AxisDef id="{axis_id}"><ScaleType tc="3">{scale}</ScaleType><AxisName>{axis_id}</AxisName>'
        f"<MinScaleValue>{lo}</MinScaleValue><MaxScaleValue>{hi}</MaxScaleValue><Increment>{step}</Increment>"
        "</AxisDef>"
    )


def ys(cells):
    return "".join(f'<Y t="{t}">{v}</Y>' for t, v in cells.items())


def table_1d(axis_id, cells, scale="Age"):
    meta = axis_def(axis_id, min(cells), max(cells), scale=scale)
    return f"<Table><MetaData>{meta}</MetaData><Values><Axis>{ys(cells)}</Axis></Values></Table>"


def table_2d(outer, inner, cells, inner_scale="Ordinal Date"):
    """cells: {(outer value, inner value): rate}."""
    outs, ins = sorted({o for o, _ in cells}), sorted({i for _, i in cells})
    body = "".join(
        f'<Axis t="{o}"><Axis>{ys({i: v for (oo, i), v in cells.items() if oo == o})}</Axis></Axis>'
        for o in outs
    )
    axes = axis_def(outer, outs[0], outs[-1]) + axis_def(inner, ins[0], ins[-1], scale=inner_scale)
    return f"<Table><MetaData>{axes}</MetaData><Values>{body}</Values></Table>"


def xtbml(
    path: Path, *tables: str, name="Test Table - Male, ANB", content="Insured Lives Mortality", bom=True
):
    text = (
        '<?xml version="1.0" encoding="utf-8"?><XTbML><ContentClassification>'
        f"<TableIdentity>9001</TableIdentity><ProviderName>Test</ProviderName><TableReference>Ref</TableReference>"
        f'<ContentType tc="4">{content}</ContentType><TableName>{name}</TableName></ContentClassification>'
        + "".join(tables)
        + "</XTbML>"
    )
    path.write_bytes((b"\xef\xbb\xbf" if bom else b"") + text.encode())
    return path


def select_cells(issue_ages, durations, base=0.001):
    return {(i, d): round(base * (1 + i) * (1 + 0.1 * d), 9) for i in issue_ages for d in durations}
